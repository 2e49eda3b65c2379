#include "Tests/Support/TestSource.h"
#include "VintrelCore/Imaging/DamagePicture.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using Status = RangeMap::Status;

std::size_t countOf(std::string_view part, std::string_view text)
{
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace

TEST(DamagePicture, DrawsEveryStateAtItsPlaceAndGivesItsFigures)
{
    RangeMap map(1'000'000);
    map.set(0, 500'000, Status::finished);
    map.set(500'000, 1, Status::bad);
    map.set(750'000, 100'000, Status::nonTrimmed);
    const auto section = DamagePicture::section(map);
    const char* const parts[] = {
        "<h2>500 KB af 1 MB er kopieret (50,0 %)</h2>",
        R"(<rect class="finished" x="0.0" width="500.0")",
        R"(<rect class="bad" x="500.0" width="1.0")",
        R"(<rect class="untried" x="501.0" width="249.0")",
        R"(<rect class="untrimmed" x="750.0" width="100.0")",
        "Ulæselig</th><td>1 byte</td><td>under 0,1 %</td><td>1 område</td>",
        "Ikke prøvet endnu</th><td>400 KB</td><td>39,9 %</td><td>2 områder</td>",
        R"(<td class="number">500001</td><td class="number">1</td><td>Ulæselig</td></tr>)",
    };
    for (const auto* part : parts)
        EXPECT_EQ(countOf(part, section), 1U) << part << "\n" << section;
}

TEST(DamagePicture, StaysSmallHoweverManyRangesThereAre)
{
    RangeMap map(100'000'000);
    for (std::uint64_t i = 0; i < 10'000; ++i)
        map.set(i * 10'000, 512, Status::bad);
    const auto section = DamagePicture::section(map);
    EXPECT_EQ(countOf("<tr><td", section), 2'000U);
    EXPECT_EQ(countOf("<p>Og 18000 områder mere", section), 1U);
    EXPECT_EQ(countOf("<rect class=\"bad\" x", section), 1U); // neighbours are one piece
    EXPECT_EQ(countOf("<rect", DamagePicture::section(RangeMap(0))), 5U); // the legend's signs
}

TEST(DamagePicture, ReplacesALinkInsteadOfWritingThroughIt)
{
    const TemporaryFolder folder;
    writeFile(folder / "andet", bytesOf("urørt"));
    const auto path = DamagePicture::pathFor(folder / "d.img");
    std::filesystem::create_symlink(folder / "andet", path);
    std::filesystem::create_symlink(folder / "andet", path + ".tmp");
    EXPECT_FALSE(DamagePicture::writePage(path, "<b>", RangeMap(512)));
    EXPECT_EQ(readFile(folder / "andet"), bytesOf("urørt"));
    const auto bytes = readFile(path);
    const std::string page(bytes.begin(), bytes.end());
    EXPECT_EQ(countOf("<h1>&lt;b&gt;</h1>", page), 1U);
    EXPECT_TRUE(page.ends_with("</html>\n"));
}
