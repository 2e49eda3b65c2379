#pragma once

#include "VintrelCore/Content/Reading.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// [MS-CFB]: Compound File Header, FAT, DIFAT and directory sectors.

namespace Content::Formats {

inline constexpr std::uint32_t oleFree = 0xFFFF'FFFF;
inline constexpr std::uint32_t oleChainEnd = 0xFFFF'FFFE;
inline constexpr std::uint32_t oleTableSector = 0xFFFF'FFFD;
inline constexpr std::uint32_t oleFirstMark = 0xFFFF'FFFC; ///< from here on no sector numbers

struct OLEHeader {
    static constexpr std::size_t slots = 109;

    std::array<std::uint8_t, 30> magicAndVersion; //  0
    LE16 sectorShift;                             // 30
    std::array<std::uint8_t, 12> unused1;         // 32
    LE32 tableSectors;                            // 44
    LE32 firstDirectorySector;                    // 48
    LE32 transaction;                             // 52
    LE32 minRegularStream;                        // 56  in bytes; shorter ones lie elsewhere
    std::array<std::uint8_t, 8> unused2;          // 60
    LE32 firstListSector;              // 68  of the list of table sectors, where it goes on
    LE32 listSectors;                  // 72
    std::array<LE32, slots> tableList; // 76
};
static_assert(sizeof(OLEHeader) == 512 && offsetof(OLEHeader, tableList) == 76);

struct OLEEntry {
    std::array<std::uint8_t, 64> name;   //   0  UTF-16
    LE16 nameSize;                       //  64  in bytes, with the final zero
    std::uint8_t type;                   //  66  0: unused
    std::uint8_t colour;                 //  67
    std::array<std::uint8_t, 48> unused; //  68
    LE32 firstSector;                    // 116
    LE64 size;                           // 120  in bytes; only the low half with small sectors

    static constexpr std::uint8_t unusedType = 0, storage = 1, stream = 2, root = 5;
    bool isSound() const
    {
        return (type <= stream || type == root) && nameSize <= name.size() && nameSize % 2 == 0
            && colour <= 1;
    }
};
static_assert(sizeof(OLEEntry) == 128 && offsetof(OLEEntry, firstSector) == 116);

/// The table that chains a compound file's sectors. It stays in the file; only the places of its
/// own sectors are held.
class OLETable {
public:
    OLETable() = default;
    /// None while the list of its sectors is not there in full; not sound where that is wrong.
    static std::optional<OLETable> read(FileBytes& file, const OLEHeader& header);

    bool isSound() const { return sectors_ != nullptr; }
    std::uint64_t sectorSize() const { return std::uint64_t { 1 } << shift_; }
    std::uint64_t entriesPerSector() const { return sectorSize() / sizeof(LE32); }
    std::uint64_t offsetOf(std::uint64_t sector) const { return (sector + 1) << shift_; }
    /// The table's own sectors, in the order of what they are for.
    const std::vector<std::uint32_t>& sectors() const { return *sectors_; }
    /// How many sectors the table has room for.
    std::uint64_t room() const { return sectors_->size() * entriesPerSector(); }
    /// The table's entry for a sector; `oleFree` for one beyond it.
    std::uint32_t entry(FileBytes& file, std::uint64_t sector) const;

private:
    std::uint16_t shift_ = 0;
    std::shared_ptr<const std::vector<std::uint32_t>> sectors_;
};

/// Reads a stream forward along its chain.
class OLEStream {
public:
    OLEStream(const OLETable& table, std::uint32_t firstSector)
        : table_(table)
        , sector_(firstSector)
    {
    }
    /// Where a byte of the stream lies in the file; none behind the chain's end. Never goes back.
    std::optional<std::uint64_t> placeOf(FileBytes& file, std::uint64_t offset);
    /// Bytes of the stream, fewer at its end.
    template <std::size_t count> Bytes read(FileBytes& file, std::uint64_t offset)
    {
        Bytes bytes;
        for (std::size_t i = 0; i < count; ++i) {
            const auto place = placeOf(file, offset + i);
            const auto byte = place ? load<std::uint8_t>(file, *place) : std::nullopt;
            if (!byte)
                break;
            bytes.push_back(*byte);
        }
        return bytes;
    }

private:
    const OLETable& table_;
    std::uint32_t sector_;
    std::uint64_t index_ = 0; ///< of the sector in the chain
};

} // namespace Content::Formats
