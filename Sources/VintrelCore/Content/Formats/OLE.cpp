#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/OLETable.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <string>

// [MS-CFB] for the file of streams, [MS-XLS] and [MS-PPT] for the records in them. Its tables and
// chains say where everything lies; most of what the streams hold has no check of its own.

namespace Content::Formats {

namespace {

constexpr std::string_view magic = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
constexpr std::uint32_t maxEntries = 65'536;
constexpr int maxRecords = 10'000'000;

std::string nameOf(const OLEEntry& entry)
{
    const auto units = std::clamp(entry.nameSize / 2 - 1, 0, 31);
    return ByteView(entry.name).utf16le(0, units);
}

/// The length of the record that begins so, its header included; none where no record does, 0 where
/// the rest is padding.
using RecordLength = std::optional<std::uint64_t> (*)(ByteView);

std::optional<std::uint64_t> workbookRecord(ByteView bytes)
{
    constexpr std::uint16_t lastType = 0x1FFF;
    constexpr std::uint16_t maxLength = 8228;
    constexpr std::uint64_t headerSize = 4;
    if (bytes.u32le(0) == 0)
        return 0;
    if (bytes.u16le(0) > lastType || bytes.u16le(2) > maxLength)
        return std::nullopt;
    return headerSize + bytes.u16le(2);
}

std::optional<std::uint64_t> slidesRecord(ByteView bytes)
{
    constexpr std::uint64_t headerSize = 8;
    constexpr int containerVersion = 0xF;
    const auto type = bytes.u16le(2);
    const bool isKnown = (type >= 1000 && type < 0x3100) || (type >= 0xF000 && type < 0xF200);
    if (bytes.isAllZero())
        return 0;
    if (!isKnown)
        return std::nullopt;
    const bool isContainer = (bytes.u8(0) & 0xF) == containerVersion;
    return headerSize + (isContainer ? 0 : bytes.u32le(4));
}

struct StreamKind {
    std::string_view name;
    RecordLength recordLength;
};
constexpr StreamKind streamKinds[] = {
    { "Workbook", workbookRecord },
    { "Book", workbookRecord },
    { "PowerPoint Document", slidesRecord },
    { "Pictures", slidesRecord },
};

class OLEChecker final : public Walker<OLEChecker> {
public:
    bool step(FileBytes& file)
    {
        if (position() == 0)
            return readHeader(file);
        if (!table_.isSound())
            return readTableList(file);
        return checkedTables_ < table_.sectors().size() ? readTableSector(file) : readAll(file);
    }

private:
    bool readHeader(FileBytes& file)
    {
        const auto header = load<OLEHeader>(file, 0);
        if (!header)
            return false;
        if (!ByteView(header->magicAndVersion).matches(magic, 0)) {
            breakAt(magic.size() - 1);
            return true;
        }
        header_ = *header;
        moveTo(sizeof(OLEHeader));
        return true;
    }

    bool readTableList(FileBytes& file)
    {
        const auto table = OLETable::read(file, header_);
        if (!table)
            return false;
        if (!table->isSound()) {
            breakAt(position());
            return true;
        }
        table_ = *table;
        return true;
    }

    /// The table's sectors are met in the order in which they lie.
    std::uint32_t nextTableSector() const
    {
        auto next = oleFree;
        for (const auto sector : table_.sectors())
            if (checkedTables_ == 0 || sector > lastTable_)
                next = std::min(next, sector);
        return next;
    }

    bool readTableSector(FileBytes& file)
    {
        const auto sector = nextTableSector();
        const auto place = table_.offsetOf(sector);
        const auto size = static_cast<std::size_t>(table_.sectorSize());
        if (sector == oleFree) { // one of them is named twice
            breakAt(position());
            return true;
        }
        const auto bytes = bytesAt(file, place, size);
        if (bytes.size() < size)
            return false;
        moveTo(std::max(position(), place + size));
        if (!areEntriesSound(bytes) || !marksItself(file, sector)) {
            breakAt(place + size - 1);
            return true;
        }
        lastTable_ = sector;
        ++checkedTables_;
        vouchUpTo(place);
        return true;
    }

    /// Whether every entry is a mark, or a sector that no other entry leads to.
    bool areEntriesSound(ByteView bytes) const
    {
        std::vector<std::uint32_t> sectors;
        sectors.reserve(bytes.size() / sizeof(LE32));
        for (std::size_t at = 0; at < bytes.size(); at += sizeof(LE32)) {
            const auto entry = bytes.u32le(static_cast<std::int64_t>(at));
            if (entry < oleFirstMark)
                sectors.push_back(entry);
        }
        std::ranges::sort(sectors);
        return std::ranges::adjacent_find(sectors) == sectors.end()
            && (sectors.empty() || sectors.back() < table_.room());
    }

    /// False where the table says what else this sector of its own is.
    bool marksItself(FileBytes& file, std::uint32_t sector) const
    {
        const auto coveredBy
            = table_.sectors()[static_cast<std::size_t>(sector / table_.entriesPerSector())];
        return coveredBy != sector || table_.entry(file, sector) == oleTableSector;
    }

    bool readAll(FileBytes& file)
    {
        if (length_ == 0)
            length_ = measure(file);
        if (file.size() < length_)
            return false;
        moveTo(length_);
        if (const auto wrong = firstWrong(file))
            breakAt(*wrong);
        else
            endAt(length_, Proof::chain);
        return true;
    }

    /// To the end of the last sector in use.
    std::uint64_t measure(FileBytes& file) const
    {
        auto last = table_.room();
        while (last > 0 && !isUsed(file, last - 1))
            --last;
        return table_.offsetOf(last);
    }

    /// Some writers mark sectors that do not exist as parts of the table: those count only where
    /// the list names them.
    bool isUsed(FileBytes& file, std::uint64_t sector) const
    {
        const auto entry = table_.entry(file, sector);
        if (entry == oleTableSector)
            return std::ranges::find(table_.sectors(), sector) != table_.sectors().end();
        return entry != oleFree;
    }

    /// Where the directory, a chain or a record contradicts itself first.
    std::optional<std::uint64_t> firstWrong(FileBytes& file) const
    {
        OLEStream directory(table_, header_.firstDirectorySector);
        std::uint64_t chained = 0;
        for (std::uint64_t number = 0; number < maxEntries; ++number) {
            const auto place = directory.placeOf(file, number * sizeof(OLEEntry));
            if (!place)
                return number == 0 ? std::optional(position()) : std::nullopt;
            const auto entry = load<OLEEntry>(file, *place).value_or(OLEEntry {});
            if (!entry.isSound() || (entry.type == OLEEntry::root) != (number == 0))
                return *place + sizeof(OLEEntry) - 1;
            const bool isRegular = number == 0
                || (entry.type == OLEEntry::stream && sizeOf(entry) >= header_.minRegularStream);
            if (!isRegular)
                continue;
            const auto length = chainLength(file, entry.firstSector);
            chained += length;
            if (length * table_.sectorSize() < sizeOf(entry) || chained > table_.room())
                return position();
            if (const auto wrong = wrongRecord(file, entry))
                return wrong;
        }
        return std::nullopt;
    }

    std::uint64_t sizeOf(const OLEEntry& entry) const
    {
        constexpr std::uint16_t smallSectors = 9;
        const std::uint64_t size = entry.size;
        return header_.sectorShift == smallSectors ? size & 0xFFFF'FFFF : size;
    }

    /// In sectors; one more than there are for a chain that does not end.
    std::uint64_t chainLength(FileBytes& file, std::uint32_t sector) const
    {
        std::uint64_t length = 0;
        while (sector < table_.room() && length <= table_.room()) {
            sector = table_.entry(file, sector);
            ++length;
        }
        return sector == oleChainEnd ? length : length == 0 ? 0 : table_.room() + 1;
    }

    /// Where the records of a stream lead to something that is none.
    std::optional<std::uint64_t> wrongRecord(FileBytes& file, const OLEEntry& entry) const
    {
        const auto* const kind = std::ranges::find(streamKinds, nameOf(entry), &StreamKind::name);
        if (kind == std::end(streamKinds))
            return std::nullopt;
        constexpr std::size_t headerSize = 8;
        OLEStream stream(table_, entry.firstSector);
        std::uint64_t offset = 0;
        for (int count = 0; count < maxRecords && offset + headerSize <= sizeOf(entry); ++count) {
            const auto place = stream.placeOf(file, offset);
            const auto bytes = stream.read<headerSize>(file, offset);
            const auto length = kind->recordLength(bytes);
            if (!length || bytes.size() < headerSize)
                return place ? *place + headerSize - 1 : position();
            if (*length == 0)
                break;
            offset += *length;
        }
        return std::nullopt;
    }

    OLEHeader header_ {};
    OLETable table_;
    std::size_t checkedTables_ = 0;
    std::uint32_t lastTable_ = 0;
    std::uint64_t length_ = 0; ///< 0 before it is known
};

} // namespace

std::unique_ptr<Checker> ole() { return std::make_unique<OLEChecker>(); }

} // namespace Content::Formats
