#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Runs.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSRuns, EndBeforeTheFirstRunThatIsImpossible)
{
    const struct {
        const char* what;
        Bytes list;
        RunList runs;
    } cases[] = {
        { "one run", { 0x21, 0x18, 0x34, 0x56, 0x00 }, { { 0x5634, 0x18 } } },
        { "sparse between", { 0x11, 0x02, 0x10, 0x01, 0x05, 0x11, 0x03, 0xF8, 0x00 },
            { { 0x10, 2 }, { std::nullopt, 5 }, { 0x08, 3 } } },
        { "negative place", { 0x11, 0x02, 0x10, 0x11, 0x02, 0xEF, 0x00 }, { { 0x10, 2 } } },
        { "no end mark", { 0x11, 0x02, 0x10 }, { { 0x10, 2 } } },
        { "cut", { 0x11, 0x02, 0x10, 0x22, 0x01, 0x02, 0x03 }, { { 0x10, 2 } } },
        { "offset of nine bytes", { 0x91, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0 }, {} },
        { "2^40 clusters", { 0x06, 0, 0, 0, 0, 0, 1 }, {} },
        { "the sum of two offsets overflows",
            { 0x81, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x11, 1, 1, 0x00 },
            { { 0x7FFFFFFFFFFFFFFF, 1 } } },
    };
    for (const auto& [what, list, runs] : cases)
        EXPECT_EQ(NTFSParser::decodeRuns(list), runs) << what;
}
