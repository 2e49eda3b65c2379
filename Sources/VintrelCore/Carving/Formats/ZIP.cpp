#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/IWork.h"
#include "VintrelCore/Carving/Formats/TextLines.h"
#include "VintrelCore/Foundation/ZIPLayout.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <limits>

// PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3.

namespace Formats {

namespace {

using namespace ZIPLayout;

constexpr std::uint64_t maxSize = 8'589'934'592;
constexpr std::uint64_t maxSearch = 1'073'741'824;
constexpr int maxRecords = 999'999;
constexpr std::size_t namesRegion = 65'536; // at each end of the file; enough to tell the kind

/// Where a walk from record to record stopped, and whether that was at the end record.
struct RecordWalk {
    std::uint64_t position = 0;
    std::uint64_t directory = 0; ///< where the central directory begins; 0 when it was not met
    bool isComplete = false;
};

RecordWalk walkRecords(RandomReader& file)
{
    RecordWalk walk;
    auto& position = walk.position;
    for (int count = 0; count < maxRecords && position < maxSize && position < file.size();
         ++count) {
        switch (file.u32le(position)) {
        case localSignature: {
            const auto header = file.load<LocalHeader>(position);
            if ((header.flags & hasDescriptor) != 0 || header.packedSize == inZip64)
                return walk;
            position += header.dataOffset() + header.packedSize;
            break;
        }
        case centralSignature: {
            if (walk.directory == 0)
                walk.directory = position;
            position += file.load<CentralHeader>(position).fullLength();
            break;
        }
        case zip64EndSignature: {
            const std::uint64_t size = file.load<Zip64EndRecord>(position).length;
            if (size >= maxZip64End)
                return walk;
            position += offsetof(Zip64EndRecord, unused) + size;
            break;
        }
        case zip64LocatorSignature:
            position += sizeof(Zip64Locator);
            break;
        case endSignature:
            walk.isComplete = true;
            return walk;
        default:
            return walk;
        }
    }
    return walk;
}

/// What an end record says of its archive; how far it lies behind the archive's start, and how far
/// the central directory does.
struct EndClaim {
    std::uint64_t distance;
    std::uint64_t directory;
};

/// None when the end record at `position` does not say.
std::optional<EndClaim> claimOf(RandomReader& file, std::uint64_t position)
{
    const auto record = file.load<EndRecord>(position);
    constexpr std::uint64_t recordDistance = sizeof(Zip64Locator) + sizeof(Zip64EndRecord);
    const std::uint64_t directory = record.directoryOffset;
    if (directory != inZip64 && record.directorySize != inZip64) {
        const std::uint64_t end = directory + record.directorySize;
        const bool hasBoth
            = position == end + recordDistance && file.u32le(end) == zip64EndSignature;
        return EndClaim { hasBoth ? position : end, directory };
    }
    constexpr EndClaim others { std::numeric_limits<std::uint64_t>::max(), 0 };
    if (position < recordDistance)
        return others;
    const auto wide = file.load<Zip64EndRecord>(position - recordDistance);
    const auto locator = file.load<Zip64Locator>(position - sizeof(Zip64Locator));
    if (locator.signature != zip64LocatorSignature || locator.recordOffset > maxSize)
        return others; // something else lies where the end of its archive was
    if (wide.signature != zip64EndSignature)
        return std::nullopt;
    return EndClaim { locator.recordOffset + recordDistance, wide.directoryOffset };
}

/// Where an archive ends, and where its central directory lies; 0 when that is not known.
struct ArchiveEnd {
    std::uint64_t size;
    std::uint64_t directory;
    bool isSound; ///< whether the end record is
};

/// The end by the end record at `position`. The comment behind it is text: where it is none, a part
/// of the record is lost, and its length may be anything.
ArchiveEnd endAt(RandomReader& file, std::uint64_t position, std::uint64_t directory)
{
    const std::uint64_t end = position + sizeof(EndRecord);
    const auto comment = file.bytes(end, file.load<EndRecord>(position).commentLength);
    const bool isSound = std::ranges::all_of(comment, isTextByte);
    return { end + comment.size(), directory, isSound };
}

/// The end by the first end record from `position` on that is this archive's by its own claim, or
/// that claims nothing at all. One that claims another start is another archive's.
std::optional<ArchiveEnd> searchEnd(const Candidate& candidate, std::uint64_t position)
{
    auto& file = candidate.file;
    const std::uint64_t limit = position + maxSearch;
    while (const auto mark = candidate.find(candidate.searches.zipEnds, position, limit)) {
        if (file.isExhausted())
            break;
        const auto claim = claimOf(file, *mark);
        if (!claim || claim->distance == *mark)
            return endAt(file, *mark, claim ? claim->directory : 0);
        position = *mark + 1;
    }
    return std::nullopt;
}

/// Calls `visit(header, name's position)` for the entries of the central directory at `position`,
/// as long as it returns true. False when it did not, and when there is no entry.
template <class Visit>
bool forEachEntry(RandomReader& file, std::uint64_t position, std::uint64_t end, Visit visit)
{
    int count = 0;
    for (; count < maxRecords && position < end; ++count) {
        const auto header = file.load<CentralHeader>(position);
        if (header.signature != centralSignature)
            break;
        if (!visit(header, position + sizeof header))
            return false;
        position += header.fullLength();
    }
    return count > 0;
}

/// Whether every entry of the central directory still has its own record.
bool isProved(RandomReader& file, const ArchiveEnd& end)
{
    return end.isSound && end.directory != 0
        && forEachEntry(file, end.directory, end.size, [&](const CentralHeader& header, auto) {
               return header.localOffset == inZip64
                   || file.u32le(header.localOffset) == localSignature;
           });
}

/// The kind of an archive whose first file is the "mimetype" of the open document formats.
const char* kindOfMimetype(RandomReader& file, const LocalHeader& first)
{
    constexpr struct {
        std::string_view content;
        const char* ext;
    } kinds[] = { { "application/vnd.oasis.opendocument.text", "odt" },
        { "application/vnd.oasis.opendocument.spreadsheet", "ods" },
        { "application/vnd.oasis.opendocument.presentation", "odp" },
        { "application/vnd.oasis.opendocument.graphics", "odg" },
        { "application/epub+zip", "epub" }, { "application/x-krita", "kra" } };
    for (const auto& [content, ext] : kinds)
        if (file.matches(first.dataOffset(), content))
            return ext;
    return "zip";
}

/// A kind, and what the names of its entries begin with: each of these does occur.
struct NamedKind {
    std::array<std::string_view, 3> names;
    const char* ext;
};

/// In the order in which they decide.
constexpr NamedKind namedKinds[] = { { { "word/" }, "docx" }, { { "xl/" }, "xlsx" },
    { { "ppt/" }, "pptx" }, { { "META-INF/MANIFEST.MF" }, "jar" },
    { { "AndroidManifest.xml" }, "apk" }, { { "3D/3dmodel.model" }, "3mf" },
    { { "3D/3DModel.model" }, "3mf" }, { { "Index/Slide" }, "key" }, { { "index.apxl" }, "key" },
    { { "export.attributes" }, "1pux" }, { { "document.json", "meta.json", "pages/" }, "sketch" } };

/// What the names of entries tell of an archive's kind.
class NamesSeen {
public:
    /// `beginsWith(text)`: whether the name of an entry begins so.
    template <class BeginsWith> void add(BeginsWith beginsWith)
    {
        for (std::size_t kind = 0; kind < first_; ++kind)
            if (completes(kind, beginsWith))
                first_ = kind;
    }
    void add(const NamesSeen& others) { first_ = std::min(first_, others.first_); }

    const char* extension() const
    {
        return first_ < std::size(namedKinds) ? namedKinds[first_].ext : "zip";
    }

private:
    /// Whether a name is the last one that was missing of a kind.
    template <class BeginsWith> bool completes(std::size_t kind, BeginsWith beginsWith)
    {
        const auto& names = namedKinds[kind].names;
        for (std::size_t i = 0; i < names.size(); ++i)
            isSeen_[kind][i] = isSeen_[kind][i] || names[i].empty() || beginsWith(names[i]);
        return std::ranges::all_of(isSeen_[kind], std::identity());
    }

    std::size_t first_ = std::size(namedKinds);
    std::array<std::array<bool, 3>, std::size(namedKinds)> isSeen_ {};
};

/// The names that the records in these bytes have. Only names of entries count: the same letters in
/// somebody's text say nothing.
NamesSeen namesIn(ByteView bytes)
{
    NamesSeen names;
    const auto size = static_cast<std::int64_t>(bytes.size());
    for (std::int64_t at = 0; at + 4 <= size; ++at) {
        if (bytes.data()[at] != 'P')
            continue;
        const auto signature = bytes.u32le(at);
        if (signature != localSignature && signature != centralSignature)
            continue;
        const std::int64_t name = at
            + static_cast<std::int64_t>(
                signature == localSignature ? sizeof(LocalHeader) : sizeof(CentralHeader));
        names.add([&](std::string_view text) { return bytes.matches(text, name); });
    }
    return names;
}

/// The kind by the archive's own directory, which names nothing of the archives that lie inside it;
/// none when it cannot be read.
const char* kindByDirectory(RandomReader& file, const ArchiveEnd& end)
{
    constexpr std::string_view documentOfIWork = "Index/Document.iwa";
    constexpr std::string_view documentInXML = "index.xml"; // before 2013
    NamesSeen names;
    std::optional<std::uint64_t> document;
    std::optional<std::uint64_t> xml;
    const bool isRead = end.directory != 0
        && forEachEntry(
            file, end.directory, end.size, [&](const CentralHeader& header, std::uint64_t name) {
                if (file.matches(name, documentOfIWork))
                    document = header.localOffset;
                if (header.nameLength == documentInXML.size() && file.matches(name, documentInXML))
                    xml = header.localOffset;
                names.add([&](std::string_view text) { return file.matches(name, text); });
                return !file.isExhausted();
            });
    if (!isRead)
        return nullptr;
    const auto* const kind = names.extension();
    if (std::string_view(kind) != "zip" || (!document && !xml))
        return kind;
    return document ? iWorkKind(file, *document) : iWorkKindByXML(file, *xml);
}

const char* kindOf(RandomReader& file, const ArchiveEnd& end)
{
    constexpr std::string_view mimetype = "mimetype";
    const auto first = file.load<LocalHeader>(0);
    if (first.nameLength == mimetype.size() && file.matches(sizeof(LocalHeader), mimetype))
        return kindOfMimetype(file, first);
    if (const auto* const kind = kindByDirectory(file, end))
        return kind;
    const auto region = static_cast<std::size_t>(std::min<std::uint64_t>(end.size, namesRegion));
    auto names = namesIn(file.bytes(0, region));
    names.add(namesIn(file.bytes(end.size - region, region)));
    return names.extension();
}

} // namespace

Found zip(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto walk = walkRecords(file);
    const auto end = walk.isComplete ? std::optional(endAt(file, walk.position, walk.directory))
                                     : searchEnd(candidate, walk.position);
    if (!end || end->size > maxSize)
        return std::nullopt;
    const std::string ext = kindOf(file, *end);
    if (!candidate.categories.contains(categoryOf("x." + ext)))
        return std::nullopt;
    auto found = candidate.found(end->size, ext);
    found.isProved = isProved(file, *end);
    return found;
}

} // namespace Formats
