#include "Tests/Support/TestSource.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

using enum RangeMap::Status;
using Block = RangeMap::Block;
using Blocks = std::vector<Block>;
using Statuses = std::vector<RangeMap::Status>;

namespace {

constexpr auto largest = std::numeric_limits<std::uint64_t>::max();

/// What the blocks must be when every byte has the status that the list says.
Blocks blocksOf(const Statuses& bytes)
{
    Blocks blocks;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (blocks.empty() || blocks.back().status != bytes[at])
            blocks.push_back({ at, 0, bytes[at] });
        ++blocks.back().size;
    }
    return blocks;
}

} // namespace

TEST(RangeMap, IsWhatEveryByteWasSetToLast)
{
    std::mt19937 random(3);
    const auto upTo = [&](std::uint64_t limit) {
        return std::uniform_int_distribution<std::uint64_t>(0, limit)(random);
    };
    for (const std::size_t size : { 1u, 7u, 60u }) {
        RangeMap map(size);
        Statuses bytes(size, nonTried);
        for (int step = 0; step < 2000; ++step) {
            const auto position = upTo(size + 2);
            const auto length = step % 50 == 0 ? largest - upTo(3) : upTo(size / 3 + 1);
            const auto status = RangeMap::allStatuses[upTo(RangeMap::allStatuses.size() - 1)];
            map.set(position, length, status);
            for (auto at = position; at < size && at - position < length; ++at)
                bytes[at] = status;
            ASSERT_EQ(map.snapshot(), blocksOf(bytes)) << step;

            const auto from = upTo(size);
            for (const auto asked : RangeMap::allStatuses) {
                ASSERT_EQ(
                    map.total(asked), static_cast<std::uint64_t>(std::ranges::count(bytes, asked)))
                    << step;
                std::optional<Block> expected;
                for (const auto& block : map.snapshot())
                    if (const auto start = std::max(block.position, from);
                        block.status == asked && block.end() > from && !expected)
                        expected = Block { start, block.end() - start, asked };
                ASSERT_EQ(map.first(asked, from), expected) << step;
            }
        }
    }
    EXPECT_EQ(RangeMap(0).snapshot(), Blocks());
}

TEST(RangeMap, PictureShowsTheWorstInEachCell)
{
    RangeMap map(100);
    map.set(0, 80, finished);
    map.set(19, 1, bad);
    map.set(30, 5, nonScraped);
    map.set(35, 5, nonTried);
    map.set(45, 5, nonTrimmed);
    EXPECT_EQ(map.cells(10),
        (Statuses { finished, bad, finished, nonScraped, nonTrimmed, finished, finished, finished,
            nonTried, nonTried }));
    EXPECT_EQ(RangeMap(0).cells(5), Statuses());
    // Of six cells for three bytes every second one begins no byte.
    EXPECT_EQ(RangeMap(3).cells(6),
        (Statuses { nonTried, nonTried, nonTried, nonTried, nonTried, finished }));
    EXPECT_EQ(RangeMap(largest).cells(3), Statuses(3, nonTried));
}

TEST(RangeMap, MapfileIsToTheLetter)
{
    RangeMap map(0x1'2345'6789A);
    map.set(0, 0xABCDE, finished);
    map.set(0xABCDE, 1, nonTrimmed);
    map.set(0xABCDF, 2, nonScraped);
    map.set(0xABCE1, 3, bad);
    EXPECT_EQ(map.mapfile(0xABCDEF, 3),
        "# Mapfile. Created by Vintrel (GNU ddrescue compatible)\n"
        "# Command line: vintrel\n"
        "# current_pos  current_status  current_pass\n"
        "0x00ABCDEF     ?               3\n"
        "#      pos        size  status\n"
        "0x00000000  0x000ABCDE  +\n"
        "0x000ABCDE  0x00000001  *\n"
        "0x000ABCDF  0x00000002  /\n"
        "0x000ABCE1  0x00000003  -\n"
        "0x000ABCE4  0x12344BBBB6  ?\n");
    EXPECT_EQ(RangeMap::parse(map.mapfile(0, 1), map.size())->snapshot(), map.snapshot());
}

TEST(RangeMap, ReadsMapfilesOfAllKinds)
{
    const struct {
        const char* text;
        std::optional<Blocks> blocks; ///< none: the text is no mapfile
    } rows[] = {
        { "# only\n\n# comments\n", {} },
        { "0 1000 +\n", {} }, // taken for the status line
        { "0 ?\n 0x0 0x10 ++\n0 16\n1x 2 +\n0x 2 +\n-1 2 +\n18446744073709551616 2 +\n0 1000 x\n",
            {} },
        { "0 ?\n0 1000 ?\n", { { { 0, 1000, nonTried } } } },
        { "0 ?\n0x00 0x3e8 +", { { { 0, 1000, finished } } } },
        { "any thing\r\n\t16  0X10\t-  and more\r\n",
            { { { 0, 16, nonTried }, { 16, 16, bad }, { 32, 968, nonTried } } } },
        { "0 ?\n0 900 +\n +800 300 *\n0 10 ?\n",
            { { { 0, 800, finished }, { 800, 200, nonTrimmed } } } },
        { "0 ?\n1000 5 +\n990 0xFFFFFFFFFFFFFFFF /\n5 0 -\n",
            { { { 0, 990, nonTried }, { 990, 10, nonScraped } } } },
        { "# bl\xC3\xA5  \xEF\xBF\xBD\n0 ?\n0 1000 +\n", { { { 0, 1000, finished } } } },
        { "# bl\xE5\n0 ?\n0 1000 +\n", {} },
    };
    for (const auto& [text, blocks] : rows) {
        const auto map = RangeMap::parse(text, 1000);
        EXPECT_EQ(map ? std::optional(map->snapshot()) : std::nullopt, blocks) << text;
    }
}

TEST(RangeMap, SavingReplacesTheMapfileWholeOrNotAtAll)
{
    const TemporaryFolder folder;
    const auto path = folder / "disk.img.map";
    RangeMap map(5000);
    ASSERT_FALSE(map.write(path, 0, 1));

    // What has the temporary file's name is replaced, not followed.
    writeFile(folder / "precious", bytesOf("precious"));
    std::filesystem::create_symlink(folder / "precious", path + ".tmp");
    map.set(0, 1000, finished);
    EXPECT_FALSE(map.write(path, 1000, 1));
    std::filesystem::create_hard_link(folder / "precious", path + ".tmp");
    EXPECT_FALSE(map.write(path, 1000, 1));
    EXPECT_EQ(readFile(folder / "precious"), bytesOf("precious"));
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    EXPECT_EQ(RangeMap::read(path, 5000)->snapshot(), map.snapshot());

    const auto before = readFile(path);
    map.set(1000, 1000, bad);
    std::filesystem::create_directory(path + ".tmp");
    EXPECT_TRUE(map.write(path, 2000, 1));
    EXPECT_EQ(readFile(path), before);

    EXPECT_FALSE(RangeMap::read(folder / "missing", 10));
    ASSERT_EQ(runCommand("mkfifo " + folder / "pipe"), 0);
    EXPECT_FALSE(RangeMap::read(
        folder / "pipe", 10)); // only a file can be one, and a pipe is not waited for
}
