#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_set>

// [MS-CFB]: Compound File Header, FAT, DIFAT and directory sectors. In other words than its own: a
// compound file is a small FAT file system: sectors behind a header as large as one of them, a
// table that chains them, and a directory whose entries form a binary tree below the root entry.

namespace Formats {

namespace {

constexpr std::uint32_t freeSector = 0xFFFF'FFFF;
constexpr std::uint32_t tableSector = 0xFFFF'FFFD;
constexpr std::uint32_t firstMark
    = 0xFFFF'FFFC;                   // from here on the table holds marks, no sector numbers
constexpr std::uint8_t rootType = 5; // of the directory's first entry
constexpr std::uint32_t lastRegularSector = 0xFFFF'FFFA;
constexpr std::uint32_t maxTableSectors = 65'535;
constexpr std::uint32_t maxDirectoryEntries = 65'536;
constexpr std::uint32_t noEntry = 0xFFFF'FFFF;
constexpr std::size_t headerSlots = 109;
constexpr std::uint64_t entrySize = sizeof(LE32); // of the table and of the list of its sectors

struct Header {
    std::array<std::uint8_t, 30> magicAndVersion; //  0
    LE16 sectorShift;                             // 30
    std::array<std::uint8_t, 12> unused1;         // 32
    LE32 tableSectors;                            // 44
    LE32 firstDirectorySector;                    // 48
    std::array<std::uint8_t, 16> unused2;         // 52
    LE32 firstListSector;                    // 68  of the list of table sectors, where it goes on
    LE32 listSectors;                        // 72
    std::array<LE32, headerSlots> tableList; // 76
};
static_assert(sizeof(Header) == 512 && offsetof(Header, tableList) == 76);

struct DirectoryEntry {
    std::array<std::uint8_t, 64> name;   //   0  UTF-16
    LE16 nameSize;                       //  64  in bytes, with the final zero
    std::uint8_t type;                   //  66  0: unused
    std::uint8_t colour;                 //  67
    LE32 left;                           //  68
    LE32 right;                          //  72
    LE32 child;                          //  76
    std::array<std::uint8_t, 48> unused; //  80
};
static_assert(sizeof(DirectoryEntry) == 128 && offsetof(DirectoryEntry, child) == 76);

std::string nameOf(const DirectoryEntry& entry)
{
    const auto units = std::clamp(entry.nameSize / 2 - 1, 0, 31);
    return ByteView(entry.name).utf16le(0, units);
}

/// How the names of tables begin in an installer package, whose names are packed two letters to a
/// character.
constexpr std::string_view installerTable = "\u4840";

bool isNumber(const std::string& name)
{
    return !name.empty()
        && std::ranges::all_of(name, [](char letter) { return letter >= '0' && letter <= '9'; });
}

class CompoundFile {
public:
    /// None when the header, or the list of its table's sectors, cannot be true.
    static std::optional<CompoundFile> open(const Candidate& candidate)
    {
        CompoundFile compound(candidate.file);
        const auto& header = compound.header_;
        if (!candidate.file.matches(0, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1")
            || (header.sectorShift != 9 && header.sectorShift != 12) || header.tableSectors < 1
            || header.tableSectors > maxTableSectors || !compound.readTableList())
            return std::nullopt;
        return compound;
    }

    /// To the end of the last sector in use; none when the table holds what no table does: it is
    /// lost, and something else lies there, such as zeros, which would all lead to the first
    /// sector. Some writers mark sectors that do not exist as parts of the table: those count only
    /// where the list names them.
    std::optional<std::uint64_t> size()
    {
        std::uint64_t leadingToFirst = 0;
        const std::uint64_t sectorsOnSource = file_.size() / sectorSize();
        std::uint64_t last = *std::ranges::max_element(tableSectors_);
        for (std::size_t i = 0; i < tableSectors_.size(); ++i) {
            for (std::uint64_t slot = 0; slot < entriesPerSector(); ++slot) {
                const auto next = file_.u32le(offsetOf(tableSectors_[i]) + slot * entrySize);
                leadingToFirst += next == 0 ? 1 : 0;
                if (file_.isExhausted() || (next >= sectorsOnSource && next < firstMark)
                    || leadingToFirst > 1)
                    return std::nullopt;
                if (next != freeSector && next != tableSector)
                    last = std::max(last, i * entriesPerSector() + slot);
            }
        }
        return offsetOf(last + (isSpareTable(last + 1) ? 2 : 1));
    }

    /// None when there is no directory.
    const char* extension()
    {
        const auto entries = readDirectory();
        if (entries.empty() || entries.front().type != rootType)
            return nullptr;
        const auto rootLevel = namesAtRoot(entries);
        if (const auto* ext = kindOf(rootLevel))
            return ext;
        std::vector<std::string> all(
            entries.size()); // a damaged tree, or a document wrapped in another
        std::ranges::transform(entries, all.begin(), nameOf);
        const auto* const ext = kindOf(all);
        return ext != nullptr ? ext : "doc";
    }

private:
    explicit CompoundFile(RandomReader& file)
        : file_(file)
        , header_(file.load<Header>(0))
    {
    }

    std::uint64_t sectorSize() const { return std::uint64_t { 1 } << header_.sectorShift; }
    std::uint64_t entriesPerSector() const { return sectorSize() / entrySize; }
    std::uint64_t offsetOf(std::uint64_t sector) const { return (sector + 1) * sectorSize(); }
    bool isOnSource(std::uint32_t sector) const
    {
        return sector <= lastRegularSector && offsetOf(sector) + sectorSize() <= file_.size();
    }

    /// Whether a sector begins with the mark of the table's sectors and holds no other but that of
    /// free ones: one that writers leave behind the last one in use, and that the list does not
    /// name.
    bool isSpareTable(std::uint64_t sector)
    {
        bool isSpare = offsetOf(sector + 1) <= file_.size();
        for (std::uint64_t at = 0; at < sectorSize() && isSpare; at += entrySize) {
            const auto entry = file_.u32le(offsetOf(sector) + at);
            isSpare = entry == tableSector || (at > 0 && entry == freeSector);
        }
        return isSpare;
    }

    bool readTableList()
    {
        const std::uint32_t count = header_.tableSectors;
        for (std::size_t i = 0; i < headerSlots && i < count; ++i)
            tableSectors_.push_back(header_.tableList[i]);
        // Each sector of the list that goes on elsewhere ends with the number of the next one.
        std::uint32_t list = header_.firstListSector;
        while (tableSectors_.size() < count && isOnSource(list) && !file_.isExhausted()) {
            const std::uint64_t slots = entriesPerSector() - 1;
            for (std::uint64_t slot = 0; slot < slots && tableSectors_.size() < count; ++slot)
                tableSectors_.push_back(file_.u32le(offsetOf(list) + slot * entrySize));
            list = file_.u32le(offsetOf(list) + slots * entrySize);
        }
        return tableSectors_.size() == count
            && std::ranges::all_of(
                tableSectors_, [&](std::uint32_t sector) { return isOnSource(sector); });
    }

    std::vector<DirectoryEntry> readDirectory()
    {
        std::vector<DirectoryEntry> entries;
        std::uint32_t sector = header_.firstDirectorySector;
        while (isOnSource(sector) && entries.size() < maxDirectoryEntries && !file_.isExhausted()) {
            for (std::uint64_t at = 0; at < sectorSize(); at += sizeof(DirectoryEntry))
                entries.push_back(file_.load<DirectoryEntry>(offsetOf(sector) + at));
            const std::uint64_t table = sector / entriesPerSector();
            if (table >= tableSectors_.size())
                break;
            sector = file_.u32le(offsetOf(tableSectors_[static_cast<std::size_t>(table)])
                + sector % entriesPerSector() * entrySize);
        }
        return entries;
    }

    static std::vector<std::string> namesAtRoot(const std::vector<DirectoryEntry>& entries)
    {
        std::vector<std::string> names;
        std::unordered_set<std::uint32_t> seen { noEntry };
        std::vector<std::uint32_t> open;
        if (!entries.empty())
            open.push_back(entries.front().child);
        while (!open.empty()) {
            const auto index = open.back();
            open.pop_back();
            if (index >= entries.size() || !seen.insert(index).second)
                continue;
            names.push_back(nameOf(entries[index]));
            open.push_back(entries[index].left);
            open.push_back(entries[index].right);
        }
        return names;
    }

    static const char* kindOf(const std::vector<std::string>& names)
    {
        const auto has
            = [&](std::string_view name) { return std::ranges::count(names, name) != 0; };
        if (has("WordDocument"))
            return "doc";
        if (has("Workbook") || has("Book"))
            return "xls";
        if (has("PowerPoint Document"))
            return "ppt";
        const auto anyBegins = [&](std::string_view prefix) {
            return std::ranges::any_of(
                names, [&](const auto& name) { return name.starts_with(prefix); });
        };
        if (anyBegins("__substg1.0_"))
            return "msg";
        // What systems keep for themselves in the same form, and nobody's document.
        if (has("DestList"))
            return "automaticdestinations-ms";
        if (has("Catalog") && std::ranges::any_of(names, isNumber))
            return "db"; // thumbnails
        if (anyBegins(installerTable))
            return "msi";
        return nullptr;
    }

    RandomReader& file_;
    Header header_;
    std::vector<std::uint32_t> tableSectors_;
};

} // namespace

Found ole(const Candidate& candidate)
{
    constexpr std::uint64_t minSize = 1024;
    auto compound = CompoundFile::open(candidate);
    if (!compound)
        return std::nullopt;
    const auto size = compound->size();
    if (!size || *size < minSize || !candidate.fits(*size))
        return std::nullopt;
    const auto* const ext = compound->extension();
    return ext != nullptr ? candidate.proved(*size, ext) : Found();
}

} // namespace Formats
