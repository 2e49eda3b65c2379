#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t freeSector = 0xFFFF'FFFF;
constexpr std::uint32_t endOfChain = 0xFFFF'FFFE;
constexpr std::uint32_t tableSector = 0xFFFF'FFFD;
constexpr std::uint32_t listSector = 0xFFFF'FFFC;

std::uint64_t offsetOf(std::uint64_t sector) { return (sector + 1) * 512; }

/// A compound file whose table has so many sectors, from sector 1 on, behind the directory; those
/// that the header has no room for are listed in the sectors behind them. `last` is in use.
Bytes compoundFile(std::uint32_t tableSectors, std::uint32_t last)
{
    constexpr std::uint32_t inHeader = 109, inList = 127;
    const std::uint32_t beyond = tableSectors > inHeader ? tableSectors - inHeader : 0;
    const std::uint32_t lists = (beyond + inList - 1) / inList;
    const std::uint32_t firstList = 1 + tableSectors;
    Bytes file = Content()
                     .be(0xD0CF'11E0'A1B1'1AE1, 8)
                     .upTo(30)
                     .le(9, 2)
                     .upTo(44)
                     .le(tableSectors, 4)
                     .le(0, 4)
                     .upTo(68)
                     .le(lists > 0 ? firstList : endOfChain, 4)
                     .le(lists, 4)
                     .upTo(512, 0xFF);
    file.resize(offsetOf(last + 1));
    putLE(file, offsetOf(0) + 66, 5, 1); // the root entry
    putLE(file, offsetOf(0) + 76, freeSector, 4);
    for (std::uint32_t slot = 0; slot < tableSectors * 128; ++slot)
        putLE(file, offsetOf(1) + slot * 4ULL, freeSector, 4);
    const auto mark = [&](std::uint32_t sector, std::uint32_t value) {
        putLE(file, offsetOf(1) + sector * 4ULL, value, 4);
    };
    mark(0, endOfChain);
    for (std::uint32_t i = 0; i < tableSectors; ++i) {
        mark(1 + i, tableSector);
        const std::uint32_t further = i - inHeader;
        putLE(file,
            i < inHeader ? 76 + i * 4
                         : offsetOf(firstList + further / inList) + further % inList * 4ULL,
            1 + i, 4);
    }
    for (std::uint32_t list = 0; list < lists; ++list) {
        mark(firstList + list, listSector);
        putLE(file, offsetOf(firstList + list) + inList * 4ULL,
            list + 1 < lists ? firstList + list + 1 : endOfChain, 4);
    }
    mark(last, endOfChain);
    return file;
}

} // namespace

TEST(OLE, EndsWithTheLastSectorThatItsTableHasInUse)
{
    const struct {
        const char* what;
        std::uint32_t tableSectors, last;
    } cases[] = {
        { "a table of one sector", 1, 100 },
        { "as many as the header lists", 109, 109 * 128 - 1 },
        { "one more, in a list of its own", 110, 110 * 128 - 1 },
        { "a list of two sectors", 109 + 128, (109 + 128) * 128 - 1 },
    };
    for (const auto& [what, tableSectors, last] : cases)
        EXPECT_EQ(
            carve(compoundFile(tableSectors, last)), "doc " + std::to_string(offsetOf(last + 1)))
            << what;
    const Bytes spare
        = Content().add(compoundFile(1, 100)).le(tableSector, 4).upTo(offsetOf(102), 0xFF);
    EXPECT_EQ(carve(spare), "doc " + std::to_string(offsetOf(102))) << "a spare table";
}
