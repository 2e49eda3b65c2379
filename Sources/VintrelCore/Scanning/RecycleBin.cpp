#include "VintrelCore/Scanning/RecycleBin.h"

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Recovery/FileReader.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <unordered_map>

namespace RecycleBin {

namespace {

// The layouts are those of "Windows Recycle Bin file formats" (dtformats project): "$I Recycle Bin
// file" and "INFO2 Recycle Bin file".

/// A file "$I…" beside each "$R…", since Windows Vista. The path follows: in version 1 in a field
/// of 260 characters, in version 2 behind its length in characters.
struct IndexHeader {
    LE64 version; //  0  1 or 2
    LE64 size;    //  8  of the file, in bytes
    LE64 deleted; // 16  as a FILETIME
};
static_assert(sizeof(IndexHeader) == 24);
constexpr std::int64_t firstVersionPath = 24;
constexpr std::int64_t secondVersionPath = 28;

/// One file "INFO2" for the whole bin, up to Windows XP.
struct ListHeader {
    std::array<std::uint8_t, 12> unused; //  0  version, counts
    LE32 recordSize;                     // 12  in bytes
    LE32 totalSize;                      // 16
};
static_assert(sizeof(ListHeader) == 20);

/// A record of "INFO2" of the systems that know Unicode.
struct ListRecord {
    std::array<std::uint8_t, 260> ansiPath; //   0
    LE32 index;                             // 260
    LE32 drive;                             // 264  0: A
    LE64 deleted;                           // 268  as a FILETIME
    LE32 allocatedSize;                     // 276  in bytes
    std::array<std::uint8_t, 520> path;     // 280  UTF-16LE
};
static_assert(sizeof(ListRecord) == 800 && offsetof(ListRecord, path) == 280);

/// Paths have at most 260 characters, unless a program asks for longer ones, which few do.
constexpr std::int64_t maxPathUnits = 1024;
constexpr std::size_t maxIndexFile = secondVersionPath + 2 * maxPathUnits;
/// A bin with more files than this list has room for is none.
constexpr std::size_t maxListFile = 8'388'608;
/// What all notes together may take, in bytes: enough for a hundred thousand files.
constexpr std::size_t maxNoteBytes = 33'554'432;
/// How much may be read of indexes, whatever comes of it.
constexpr std::size_t maxReadBytes = 268'435'456;

/// "$I" or "$R" and six characters. Of a short name on FAT that was deleted the first character is
/// lost.
constexpr std::size_t binNameLength = 8;

bool isBinName(std::string_view name, char kind)
{
    return name.size() >= binNameLength && (name[0] == '$' || name[0] == '_')
        && Text::lowerCase(name[1]) == kind;
}

/// What a file and its index have in common.
std::string pairKey(std::string_view name) { return Text::lowerCase(name.substr(2)); }

std::string pathAt(ByteView bytes, std::int64_t at, std::int64_t maxUnits)
{
    auto path = bytes.utf16le(at, maxUnits);
    path.erase(std::min(path.find('\0'), path.size()));
    return path;
}

/// Whether it begins as a path on a drive or in a network does.
bool isPath(std::string_view path)
{
    const auto isLetter = [](char letter) {
        const char lower = Text::lowerCase(letter);
        return lower >= 'a' && lower <= 'z';
    };
    return path.starts_with("\\\\")
        || (path.size() > 3 && isLetter(path[0]) && path.substr(1, 2) == ":\\");
}

/// Where something lay before, and when it was put into the bin.
struct OriginalPlace {
    std::string path;
    Date deleted;

    std::string extension() const { return fileExtension(path.substr(path.rfind('\\') + 1)); }

    std::string note() const
    {
        return "Oprindelig sti: " + path + ", slettet "
            + TimeConversion::localText(deleted, "%Y-%m-%d %H:%M:%S");
    }
};

std::optional<OriginalPlace> placeFrom(std::string path, std::uint64_t filetime)
{
    const auto deleted = TimeConversion::fromFiletime(filetime);
    if (!deleted || !isPath(path))
        return std::nullopt;
    return OriginalPlace { .path = std::move(path), .deleted = *deleted };
}

/// What a file "$I…" says; none when it is no such file.
std::optional<OriginalPlace> decodeIndex(ByteView bytes)
{
    const auto header = bytes.load<IndexHeader>(0);
    if (!header || (header->version != 1 && header->version != 2))
        return std::nullopt;
    const auto at = header->version == 1 ? firstVersionPath : secondVersionPath;
    return placeFrom(pathAt(bytes, at, maxPathUnits), header->deleted);
}

class Bins {
public:
    Bins(DiskSource& source, WorkProgress* progress)
        : source_(source)
        , progress_(progress)
    {
    }

    void visit(const FileNode& folder)
    {
        std::vector<const FileNode*> indexes;
        for (const auto& child : folder.children()) {
            if (child->isDirectory())
                continue;
            if (isBinName(child->name, 'i'))
                indexes.push_back(child.get());
            else if (Text::lowerCase(child->name) == "info2")
                visitList(folder, *child);
        }
        if (!indexes.empty())
            visitIndexes(folder, indexes);
    }

private:
    using Siblings = std::unordered_map<std::string, FileNode*>;

    void visitIndexes(const FileNode& folder, const std::vector<const FileNode*>& indexes)
    {
        Siblings siblings;
        for (const auto& child : folder.children())
            if (isBinName(child->name, 'r'))
                addTo(siblings, pairKey(child->name), *child);
        for (const auto* index : indexes) {
            auto* const node = find(siblings, pairKey(index->name));
            if (node == nullptr)
                continue;
            const auto place = decodeIndex(read(*index, maxIndexFile));
            // The clusters of a deleted index may hold another one by now.
            if (place && (node->isDirectory() || place->extension() == node->fileExtension()))
                note(*node, *place);
        }
    }

    /// Names are "D", the letter of the drive and the number of the record, with the file's own
    /// extension.
    void visitList(const FileNode& folder, const FileNode& list)
    {
        const auto bytes = read(list, maxListFile);
        const ByteView view(bytes);
        const auto header = view.load<ListHeader>(0);
        if (!header || header->recordSize != sizeof(ListRecord))
            return;
        Siblings siblings;
        for (const auto& child : folder.children())
            addTo(siblings, Text::lowerCase(child->name), *child);
        constexpr std::int64_t first = sizeof(ListHeader), step = sizeof(ListRecord);
        for (auto at = first; const auto record = view.load<ListRecord>(at); at += step) {
            const auto place = placeFrom(pathAt(record->path, 0, 260), record->deleted);
            if (!place || record->drive >= 26)
                continue;
            const auto letter = static_cast<char>('a' + record->drive);
            auto name = std::string("d") + letter + std::to_string(record->index);
            if (const auto extension = place->extension(); !extension.empty())
                name.append(".").append(extension);
            if (auto* const node = find(siblings, name))
                note(*node, *place);
        }
    }

    /// Of two with one name it is not known whose index there is.
    static void addTo(Siblings& siblings, std::string key, FileNode& node)
    {
        const auto [found, isNew] = siblings.try_emplace(std::move(key), &node);
        if (!isNew)
            found->second = nullptr;
    }

    static FileNode* find(const Siblings& siblings, const std::string& key)
    {
        const auto found = siblings.find(key);
        return found != siblings.end() ? found->second : nullptr;
    }

    Bytes read(const FileNode& file, std::size_t max)
    {
        const auto size = std::min<std::uint64_t>(file.size, max);
        if (size > readLeft_ || isCancelled(progress_))
            return {};
        readLeft_ -= size;
        return FileReader::readPrefix(file, source_, max);
    }

    void note(FileNode& node, const OriginalPlace& place)
    {
        const auto text = place.note();
        if (text.size() > noteLeft_)
            return;
        noteLeft_ -= text.size();
        node.addNote(text);
    }

    DiskSource& source_;
    WorkProgress* progress_;
    std::uint64_t readLeft_ = maxReadBytes;
    std::size_t noteLeft_ = maxNoteBytes;
};

/// Apple's file systems have no such bins.
bool canHaveBins(FileSystemType type)
{
    return isFAT(type) || type == FileSystemType::exfat || type == FileSystemType::ntfs;
}

} // namespace

void noteOriginalPaths(DiskSource& source, const VolumeList& volumes, WorkProgress* progress)
{
    Bins bins(source, progress);
    for (const auto& volume : volumes) {
        if (!canHaveBins(volume->type))
            continue;
        bins.visit(*volume->root);
        volume->root->forEachDescendant([&](const FileNode& node, std::size_t) {
            if (node.isDirectory())
                bins.visit(node);
        });
    }
}

} // namespace RecycleBin
