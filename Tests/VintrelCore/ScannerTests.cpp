#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Scanner.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using enum FileSystemType;
using Notes = std::vector<std::string>;

constexpr auto extNote = "ext-filsystemer understøttes kun via dyb scanning.";

std::vector<std::uint64_t> offsets(const VolumeList& volumes)
{
    std::vector<std::uint64_t> offsets;
    for (const auto& volume : volumes)
        offsets.push_back(volume->offset / 512);
    return offsets;
}

} // namespace

TEST(QuickScanner, ReadsAFileSystemWithoutAPartitionTable)
{
    const auto disk = PartitionImage(3_MiB).volume(0, fat16).source();
    const auto result = QuickScanner::run(*disk, nullptr);
    EXPECT_EQ(result.layout.scheme, "Ingen partitionstabel");
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes[0]->title(), "Uden navn (FAT16)");
    EXPECT_EQ(result.volumes[0]->origin, "Hele disken");
    EXPECT_TRUE(result.notes.empty());
}

TEST(QuickScanner, ReportsWhatItCannotReadAndGoesOn)
{
    const auto disk = PartitionImage(1_MiB)
                          .gpt({ { linuxGUID, 100, 199, u"data" }, { basicDataGUID, 200, 299, u"Billeder" },
                                   { basicDataGUID, 300, 399 }, { basicDataGUID, 400, 499, u"tom" },
                                   { basicDataGUID, 500, 599, u"kort" } },
                              { .headerLBA = 2047, .tableLBA = 2040 })
                          .volume(100, ext)
                          .volume(200, ntfs)
                          .volume(300, hfsplus)
                          .volume(500, fat12)
                          .source();
    const auto result = QuickScanner::run(*disk, nullptr);
    EXPECT_EQ(result.notes,
        (Notes { "Den primære GPT-header var beskadiget – backup-headeren blev brugt.", extNote,
            "NTFS-filsystemet på Billeder kunne ikke læses. Prøv dyb scanning.",
            "HFS+-filsystemet på partition 3 kunne ikke læses. Prøv dyb scanning." }));
    EXPECT_EQ(result.layout.notes.size(), 1u);
    EXPECT_EQ(result.layout.entries.size(), 5u);
    EXPECT_EQ(offsets(result.volumes), (std::vector<std::uint64_t> { 500 }));
}

TEST(QuickScanner, LoadsAPlaceThatIsNamedTwiceOnce)
{
    const auto disk = PartitionImage(1_MiB)
                          .mbr({ { 0x01, 100, 90 }, { 0x01, 300, 90 }, { 0x0C, 100, 200 }, { 0x01, 300, 1 } })
                          .volume(100, fat12)
                          .volume(300, fat12)
                          .source();
    const auto result = QuickScanner::run(*disk, nullptr);
    EXPECT_EQ(result.layout.entries.size(), 4u);
    EXPECT_EQ(offsets(result.volumes), (std::vector<std::uint64_t> { 100, 300 }));
    EXPECT_TRUE(result.notes.empty());
}

TEST(QuickScanner, StopsBetweenPartitionsWhenCancelled)
{
    const auto disk = PartitionImage(1_MiB)
                          .mbr({ { 0x01, 100, 90 }, { 0x83, 200, 90 }, { 0x01, 300, 90 } })
                          .volume(100, fat12)
                          .volume(200, ext)
                          .volume(300, fat12)
                          .source();
    std::vector<double> fractions;
    std::vector<std::string> messages;
    WorkProgress progress([&](double fraction, const std::string& message) {
        fractions.push_back(fraction);
        messages.push_back(message);
    });
    const auto whole = QuickScanner::run(*disk, &progress);
    EXPECT_EQ(offsets(whole.volumes), (std::vector<std::uint64_t> { 100, 300 }));
    EXPECT_EQ(whole.notes, Notes { extNote });
    EXPECT_EQ(messages.front(), "Læser partitionstabel …");
    EXPECT_TRUE(std::ranges::is_sorted(fractions));
    EXPECT_EQ(fractions.back(), 1.0);

    // Cancelled while the first partition is read: the user gets what there is of it, and nothing after it.
    WorkProgress* self = nullptr;
    WorkProgress impatient([&](double, const std::string& message) {
        if (message.find("partition 1") != std::string::npos)
            self->cancel();
    });
    self = &impatient;
    const auto part = QuickScanner::run(*disk, &impatient);
    EXPECT_EQ(offsets(part.volumes), (std::vector<std::uint64_t> { 100 }));
    EXPECT_TRUE(part.notes.empty());
    EXPECT_EQ(part.layout.entries.size(), 3u);

    WorkProgress cancelled;
    cancelled.cancel();
    EXPECT_TRUE(QuickScanner::run(*disk, &cancelled).volumes.empty());
}

TEST(VolumeLoader, ReadsWithABootSectorFromElsewhere)
{
    const auto disk = makeSource(Bytes(1_MiB));
    EXPECT_TRUE(VolumeLoader::load(*disk, fat12, 5120, "fund", nullptr).empty());
    const auto boot = volumeStart(fat12);
    const auto volumes = VolumeLoader::load(*disk, fat12, 5120, "fund", nullptr, ByteView(boot));
    ASSERT_EQ(volumes.size(), 1u);
    EXPECT_EQ(volumes[0]->origin, "fund");
    EXPECT_EQ(volumes[0]->offset, 5120u);
    for (const auto type : { ext, carved, unknown })
        EXPECT_TRUE(VolumeLoader::load(*disk, type, 0, "fund", nullptr).empty());
}
