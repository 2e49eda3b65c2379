#include "Tests/VintrelCore/Carving/Carve.h"
#include "VintrelCore/Devices/SourceOpener.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

using namespace std::string_view_literals;

namespace {

constexpr std::uint64_t fileHeaderSize = 40;

/// The beginning of an archive of version 4, up to the data of its one file. `high`: the upper half
/// of the data's size, which only large files have.
Content archive4(std::uint32_t low, std::optional<std::uint32_t> high = {})
{
    Content archive;
    archive.text("Rar!\x1A\x07\0"sv).zeros(2).be(0x73, 1).zeros(2).le(13, 2).upTo(20);
    archive.zeros(2).be(0x74, 1).le(high ? 0x8100 : 0x8000, 2).le(fileHeaderSize, 2).le(low, 4);
    return archive.upTo(20 + 32).le(high.value_or(0), 4).upTo(20 + fileHeaderSize);
}

Content end4() { return Content().zeros(2).be(0x7B, 1).le(0x4000, 2).le(7, 2); }

} // namespace

TEST(RAR, EndsVersion4WithItsEndBlock)
{
    EXPECT_EQ(carve(archive4(500).zeros(500).add(end4())), "rar 567");
    EXPECT_EQ(carve(archive4(500).zeros(500)), "-");
}

TEST(RAR, AddsTheUpperHalfOfALargeSize)
{
    EXPECT_EQ(carve(archive4(500, 1).zeros(500).add(end4())), "-") << "longer than the source";

    const TemporaryFolder folder;
    const auto path = folder / "stor.img";
    const Content start = archive4(500, 1);
    const std::uint64_t end = start.size() + 500 + (std::uint64_t { 1 } << 32);
    writeFile(path, static_cast<const Bytes&>(start));
    std::filesystem::resize_file(path, end); // with a hole
    writeFile(folder / "slut", static_cast<const Bytes&>(end4().upTo(4096)));
    ASSERT_EQ(runCommand("cat " + (folder / "slut") + " >> " + path), 0);
    const auto source = SourceOpener::openImage(path);
    const auto found
        = Carver(*source, carvedCategories()).check(source->read(0, 64, ReadMode::fast), 0);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->size, end + 7);
}

TEST(RAR, EndsVersion5WithItsEndHeader)
{
    const Content archive = Content()
                                .text("Rar!\x1A\x07\x01\0"sv)
                                .zeros(4)
                                .be(3, 1)
                                .be(0x01'00'00, 3) // archive header
                                .zeros(4)
                                .be(5, 1)
                                .be(0x02'03'00, 3)
                                .be(0x80'04, 2)
                                .upTo(16 + 10 + 512) // file with data
                                .zeros(4)
                                .be(3, 1)
                                .be(0x05'00'00, 3);
    EXPECT_EQ(carve(archive), "rar 546");
}
