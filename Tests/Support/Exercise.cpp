#include "Tests/Support/Exercise.h"

#include "Tests/Support/TestSource.h"
#include "VintrelCLI/Console.h"
#include "VintrelCLI/Output.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Recovery/Recovery.h"
#include "VintrelCore/Scanning/FullScan.h"
#include "VintrelCore/Scanning/RecycleBin.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr std::uint64_t quickReads = 64, deepReads = 512; ///< times the size of the source
constexpr std::uint64_t readBackLimit = 256_KiB;          ///< of each file

std::string join(std::initializer_list<std::string> findings)
{
    for (const auto& finding : findings)
        if (!finding.empty())
            return finding;
    return {};
}

std::string reads(const DiskSource& source, std::uint64_t times)
{
    return source.bytesRead() <= times * source.size() + 1_MiB
        ? ""
        : "reads without end: " + std::to_string(source.bytesRead()) + " bytes";
}

std::string sizes(const DiskSource& source, const VolumeList& volumes)
{
    for (const auto& volume : volumes) {
        const auto totals = volume->root->totals();
        if (totals.files + totals.folders > source.size())
            return "more entries than bytes: " + volume->origin;
    }
    return {};
}

std::string layout(const DiskSource& source, const PartitionLayout& layout)
{
    for (const auto& entry : layout.entries)
        if (entry.offset >= source.size() || entry.size > source.size() - entry.offset)
            return "a partition beyond the source";
    return {};
}

std::uint64_t delivered(DiskSource& source, const FileReader::Content& content)
{
    std::uint64_t count = 0;
    FileReader::stream(content, source, 64_KiB, readBackLimit, [&](const FileReader::Piece& piece) {
        count += piece.size();
        return true;
    });
    return count;
}

/// The places of `bytes`, so many apart, where a recogniser says yes.
template <class Recogniser>
std::vector<std::uint64_t> places(const Bytes& bytes, std::size_t step, Recogniser recognises)
{
    std::vector<std::uint64_t> found;
    for (std::size_t offset = 0; offset < bytes.size(); offset += step)
        if (recognises(bytes, static_cast<std::int64_t>(offset)))
            found.push_back(offset);
    return found;
}

} // namespace

namespace Exercise {

std::unique_ptr<DiskSource> sourceOf(const Bytes& bytes, std::uint32_t sectorSize)
{
    const auto read = [&bytes](std::uint64_t offset, std::span<std::uint8_t> into) {
        std::ranges::copy(std::span(bytes).subspan(offset, into.size()), into.begin());
        return true;
    };
    return std::make_unique<DiskSource>(DiskSource::Opened { .descriptor = FileDescriptor(),
        .path = "test.img",
        .displayName = "test.img",
        .size = bytes.size(),
        .sectorSize = sectorSize,
        .isDevice = false,
        .bsdName = std::nullopt,
        .cleanup = nullptr,
        .read = read });
}

std::string readBack(DiskSource& source, const VolumeList& volumes)
{
    for (const auto& volume : volumes)
        for (const auto* file : volume->root->allFiles()) {
            const auto content = FileReader::contentOf(*file);
            const auto promised = FileReader::streamedLength(content);
            if (delivered(source, content) != std::min(promised, readBackLimit))
                return "a stream that breaks its promise: " + file->path();
            if (promised < file->size && file->recoverability == Recoverability::good)
                return "a file that lacks bytes and is called good: " + file->path();
            for (const auto& attachment : file->attachments ? *file->attachments : Attachments())
                delivered(source, { attachment.data, attachment.size });
        }
    return {};
}

std::string harmlessText(std::string_view text)
{
    for (auto rest = text; !rest.empty();) {
        const auto before = rest;
        const auto codePoint = Unicode::takeFirst(rest);
        if (before.front() == '\n' || before.front() == '\t')
            continue;
        const auto taken = before.substr(0, before.size() - rest.size());
        if (Unicode::escaped(taken) != taken)
            return "a byte that drives the terminal: U+" + std::to_string(codePoint);
    }
    return {};
}

std::string print(DiskSource& source, const VolumeList& volumes)
{
    std::ostringstream out;
    StateLine state(out, false);
    Console console(out, out, state);
    for (const auto& output : { makeTextOutput(console), makeJSONOutput(console) })
        for (const auto& volume : volumes) {
            if (!output)
                continue;
            output->source(source);
            output->volume(*volume);
            output->tree(*volume, ListedStreams::yes);
            output->summary(*volume);
        }
    return harmlessText(out.str());
}

std::string quick(DiskSource& source)
{
    auto result = QuickScanner::run(source, nullptr);
    QuickScanner::readDeepOnly(source, result, nullptr);
    RecycleBin::noteOriginalPaths(source, result.volumes, nullptr);
    return join(
        { layout(source, result.layout), sizes(source, result.volumes), reads(source, quickReads),
            readBack(source, result.volumes), print(source, result.volumes) });
}

std::string lost(DiskSource& source, const Bytes& bytes)
{
    auto result = QuickScanner::run(source, nullptr);
    const auto inFAT = places(bytes, 512, FATParser::looksLikeDirectorySector);
    const auto inExFAT = places(bytes, 512, ExFATParser::looksLikeDirectorySector);
    const auto leaves = places(bytes, 4096,
        [](ByteView view, std::int64_t at) { return APFSParser::looksLikeFSTreeLeaf(view, at); });
    VolumeList all = FATParser::rebuild(
        source, inFAT, { .heaps = {}, .volumeStarts = {}, .carved = {} }, nullptr);
    std::ranges::move(ExFATParser::rebuild(source, inExFAT,
                          { .heaps = {}, .volumeStarts = {}, .carved = {} }, nullptr),
        std::back_inserter(all));
    for (const auto& volume : result.volumes) {
        const auto add = [&](std::unique_ptr<FileNode> folder) {
            if (folder)
                volume->root->add(std::move(folder));
        };
        add(FATParser::lostEntries(*volume, inFAT, nullptr));
        add(ExFATParser::lostEntries(*volume, inExFAT, nullptr));
        add(APFSParser::lostFiles(source, *volume, leaves, nullptr));
    }
    return join({ sizes(source, all), sizes(source, result.volumes) });
}

std::string sweep(DiskSource& source)
{
    const auto found = DeepScanner(source).run(nullptr);
    const auto volumes = DeepScanner::buildVolumes(source, found, {}, nullptr);
    for (auto& [volume, folder] : DeepScanner::extraFolders(source, volumes, found, nullptr))
        volume->root->add(std::move(folder));
    return join({ volumes.size() < 64 ? "" : "too many volumes", sizes(source, volumes),
        reads(source, deepReads) });
}

std::string deep(DiskSource& source, bool withFragments)
{
    const auto volumes = FullScan::run(source,
        FullScan::Options { .deep = DeepScanOptions(), .fragments = withFragments }, nullptr);
    return join({ sizes(source, volumes), reads(source, deepReads), readBack(source, volumes),
        print(source, volumes) });
}

std::string recover(DiskSource& source, const VolumeList& volumes)
{
    namespace fs = std::filesystem;
    const TemporaryFolder around;
    const fs::path target = around / "ud";
    fs::create_directory(target);
    // A link that is there already, by the name of a volume, is none of the program's business.
    writeFile(around / "andres", bytesOf("urørt"));
    std::error_code ignored;
    for (const auto& volume : volumes)
        fs::create_symlink(around / "andres", target / ("_" + volume->label), ignored);
    const auto entries = [](const fs::path& folder) {
        return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    };
    auto expected = entries(target);
    for (const auto& volume : volumes) {
        std::vector<FileNode*> nodes;
        for (const auto& child : volume->root->children())
            nodes.push_back(child.get());
        const WorkProgress progress;
        const auto result = RecoveryEngine::recover(nodes, volume->title(), source, target.string(),
            { .writePage = true, .streams = true }, nullptr, progress);
        expected += result.folder ? 1 : 0;
        if (entries(target) != expected || entries(around.path()) != 2)
            return "something beside the recovery folder of " + volume->title();
        if (!result.folder)
            continue;
        for (const auto& entry : fs::recursive_directory_iterator(*result.folder))
            if (entry.is_symlink())
                return "a link in the recovery folder: " + entry.path().string();
        if (auto finding = harmlessText(result.failures.empty() ? "" : result.failures.front());
            !finding.empty())
            return finding;
    }
    return readFile(around / "andres") == bytesOf("urørt") ? "" : "a link was followed";
}

std::string recover(DiskSource& source)
{
    return recover(source, FullScan::run(source, FullScan::Options(), nullptr));
}

} // namespace Exercise
