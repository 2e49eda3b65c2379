#include "VintrelCLI/Console.h"
#include "VintrelCLI/Output.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/FileNode.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <utility>

namespace {

/// Keeps the order in which an object was written down.
using Object = nlohmann::ordered_json;

/// Lines leave in blocks of about this many bytes.
constexpr std::size_t blockSize = 65'536;

std::string_view word(EntryStatus status)
{
    switch (status) {
    case EntryStatus::existing:
        return "existing";
    case EntryStatus::deleted:
        return "deleted";
    case EntryStatus::orphaned:
        return "orphaned";
    case EntryStatus::carved:
        return "carved";
    }
    return "";
}

std::string_view word(Recoverability chance)
{
    switch (chance) {
    case Recoverability::unknown:
        return "unknown";
    case Recoverability::poor:
        return "poor";
    case Recoverability::partial:
        return "partial";
    case Recoverability::good:
        return "good";
    }
    return "";
}

/// The path of each node of a walk, without going up to the root for each.
class Paths {
public:
    const std::string& enter(const FileNode& node, std::size_t depth)
    {
        ends_.resize(depth);
        path_.resize(depth > 1 ? ends_[depth - 1] : 0);
        path_.append("/").append(node.name);
        ends_.push_back(path_.size());
        return path_;
    }

private:
    std::string path_;
    std::vector<std::size_t> ends_; // of the folders above, by depth
};

Object placesOf(const ExtentList& extents)
{
    auto places = Object::array();
    for (const auto& extent : extents)
        places.push_back({ { "offset", extent.offset ? Object(*extent.offset) : Object() },
            { "length", extent.length } });
    return places;
}

Object placesOf(const CompressedRuns& runs)
{
    auto places = Object::array();
    for (const auto& run : runs.runs)
        places.push_back(
            { { "offset",
                  run.lcn ? Object(runs.volumeOffset + *run.lcn * runs.clusterSize) : Object() },
                { "length", run.clusters * runs.clusterSize } });
    return places;
}

/// Where a file's content lies, and in which form.
void addContent(Object& object, const FileData& data)
{
    if (std::holds_alternative<Bytes>(data)) {
        object["stored"] = "inline";
    } else if (const auto* runs = contentAs<CompressedRuns>(data)) {
        object["stored"] = "compressed";
        object["extents"] = placesOf(*runs);
    } else if (const auto* extents = extentsOf(data)) {
        object["stored"] = std::holds_alternative<ExtentList>(data) ? "plain" : "compressed";
        object["extents"] = placesOf(*extents);
    } else {
        object["stored"] = "nowhere";
    }
}

class JSONOutput : public Output {
public:
    explicit JSONOutput(Console& console)
        : console_(console)
    {
    }

    void disks(const std::vector<DiskRecord>& disks) override
    {
        for (const auto& disk : disks) {
            auto partitions = Object::array();
            for (const auto& partition : disk.partitions)
                partitions.push_back({ { "name", partition.bsdName }, { "size", partition.size },
                    { "content", partition.content }, { "volumeName", partition.volumeName },
                    { "mountPoint", partition.mountPoint } });
            write({ { "type", "disk" }, { "name", disk.bsdName }, { "size", disk.size },
                { "mediaName", disk.mediaName }, { "bus", disk.busProtocol },
                { "smart", disk.smartStatus }, { "partitions", std::move(partitions) } });
        }
    }

    void source(const DiskSource& source) override
    {
        write({ { "type", "source" }, { "name", source.displayName() }, { "size", source.size() },
            { "sectorSize", source.sectorSize() } });
    }

    void layout(const PartitionLayout& layout) override
    {
        for (const auto& entry : layout.entries)
            write({ { "type", "partition" }, { "index", entry.index }, { "scheme", entry.scheme },
                { "typeName", entry.typeName }, { "name", entry.name }, { "offset", entry.offset },
                { "size", entry.size },
                { "fileSystem", displayName(entry.detected.value_or(FileSystemType::unknown)) } });
    }

    void context(const DiskSource& from, const PartitionLayout& partitions) override
    {
        source(from);
        layout(partitions);
    }

    void note(const std::string& text) override { write({ { "type", "note" }, { "text", text } }); }

    void sweep(const DeepScanResult& finds) override
    {
        auto counts = Object::object();
        for (const auto& kind : findCounts(finds))
            counts[std::string(kind.key)] = kind.count;
        write({ { "type", "sweep" }, { "scannedUpTo", finds.scannedUpTo },
            { "completed", finds.completed }, { "finds", std::move(counts) } });
    }

    void volume(const Volume& volume) override
    {
        const auto totals = volume.root->totals();
        write({ { "type", "volume" }, { "volume", ++volumes_ }, { "title", volume.title() },
            { "label", volume.label }, { "fileSystem", displayName(volume.type) },
            { "origin", volume.origin }, { "offset", volume.offset }, { "size", volume.size },
            { "clusterSize", volume.clusterSize }, { "files", totals.files },
            { "folders", totals.folders }, { "deleted", totals.deleted }, { "bytes", totals.bytes },
            { "notes", volume.notes } });
    }

    void tree(const Volume& listed, ListedStreams streams) override
    {
        volume(listed);
        Paths paths;
        listed.root->forEachDescendant([&](const FileNode& node, std::size_t depth) {
            const auto& path = paths.enter(node, depth);
            auto object = begun("node", node, path);
            object["fsID"] = node.fsID;
            if (!node.isDirectory())
                addContent(object, node.data);
            add(object);
            if (streams == ListedStreams::yes)
                addStreams(node, path);
        });
        flush();
    }

    void summary(const Volume& listed) override { volume(listed); }

    RecoveryEngine::FileListener recovering(const Volume& from) override
    {
        volume(from);
        return [this](const RecoveredFile& file) {
            auto object = begun("file", file.node, file.path);
            object["chance"] = word(file.chance());
            object["note"] = file.note();
            object["copied"] = file.isCopied;
            object["unreadable"] = file.badBytes;
            write(object);
        };
    }

    void recovered(const Volume& volume, const RecoveryResult& result) override
    {
        write({ { "type", "result" }, { "volume", volumes_ }, { "title", volume.title() },
            { "listed", result.listed }, { "recovered", result.recovered },
            { "withErrors", result.withErrors }, { "failed", result.failed },
            { "bytes", result.bytes }, { "cancelled", result.cancelled },
            { "destinationFull", result.isDestinationFull },
            { "folder", result.folder ? Object(*result.folder) : Object() },
            { "page", result.page ? Object(*result.page) : Object() },
            { "failures", result.failures } });
    }

    void end(bool isComplete) override { write({ { "type", "end" }, { "complete", isComplete } }); }

private:
    /// What is told of a file or folder in every listing.
    Object begun(std::string_view type, const FileNode& node, const std::string& path) const
    {
        const auto dateOf = [](const std::optional<Date>& date) {
            return date ? Object(TimeConversion::isoText(*date)) : Object();
        };
        return { { "type", type }, { "volume", volumes_ }, { "path", path },
            { "directory", node.isDirectory() }, { "size", node.size },
            { "created", dateOf(node.created) }, { "modified", dateOf(node.modified) },
            { "status", word(node.status) }, { "chance", word(node.recoverability) },
            { "note", node.note.value_or(std::string()) } };
    }

    void addStreams(const FileNode& node, const std::string& path)
    {
        if (!node.attachments)
            return;
        for (const auto& stream : *node.attachments) {
            if (stream.kind != Attachment::Kind::stream)
                continue;
            auto object = begun(
                "stream", *makeStreamFile(node, stream, stream.name), path + ":" + stream.name);
            addContent(object, stream.data);
            add(object);
        }
    }

    /// Everything beyond ASCII is spelled out, so that a line is sound whatever a name holds, and
    /// no terminal takes a part of it for an order.
    void add(const Object& object)
    {
        constexpr int onOneLine = -1;
        constexpr bool onlyASCII = true;
        lines_ += object.dump(onOneLine, ' ', onlyASCII, Object::error_handler_t::replace);
        lines_ += '\n';
        if (lines_.size() >= blockSize)
            flush();
    }

    void write(const Object& object)
    {
        add(object);
        flush();
    }

    void flush()
    {
        console_.printBlock(lines_);
        lines_.clear();
    }

    Console& console_;
    std::string lines_; // not printed yet
    std::uint64_t volumes_ = 0;
};

} // namespace

std::unique_ptr<Output> makeJSONOutput(Console& console)
{
    return std::make_unique<JSONOutput>(console);
}
