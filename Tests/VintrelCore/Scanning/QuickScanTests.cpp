#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using enum FileSystemType;
using Texts = std::vector<std::string>;

/// Origin and first sector of each volume.
Texts places(const VolumeList& volumes)
{
    Texts places;
    for (const auto& volume : volumes)
        places.push_back(volume->origin + " @ " + std::to_string(volume->offset / 512));
    return places;
}

} // namespace

TEST(QuickScanner, ReportsWhatItCannotReadAndGoesOn)
{
    const auto disk
        = PartitionImage(1_MiB)
              .gpt({ { linuxGUID, 100, 199, u"data" }, { basicDataGUID, 200, 299, u"Billeder" },
                       { basicDataGUID, 300, 399 }, { basicDataGUID, 400, 499, u"tom" },
                       { basicDataGUID, 500, 599, u"kort" }, { basicDataGUID, 500, 600, u"igen" } },
                  { .headerLBA = 2047, .tableLBA = 2040 })
              .volume(100, ext)
              .volume(200, ntfs)
              .volume(300, hfsplus)
              .volume(500, fat12)
              .source();
    const auto result = QuickScanner::run(*disk, nullptr);
    EXPECT_EQ(result.notes,
        (Texts { "Den primære GPT-header var beskadiget – backup-headeren blev brugt.",
            "ext-filsystemer understøttes kun via dyb scanning.",
            "NTFS-filsystemet på Billeder kunne ikke læses. Prøv dyb scanning.",
            "HFS+-filsystemet på partition 3 kunne ikke læses. Prøv dyb scanning." }));
    EXPECT_EQ(result.layout.entries.size(), 6u);
    EXPECT_EQ(places(result.volumes), Texts { "GPT, kort @ 500" })
        << "a place that is named twice is loaded once";
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
    WorkProgress progress(
        [&](double fraction, const std::string&) { fractions.push_back(fraction); });
    const auto whole = QuickScanner::run(*disk, &progress);
    EXPECT_EQ(
        places(whole.volumes), (Texts { "MBR, partition 1 @ 100", "MBR, partition 3 @ 300" }));
    EXPECT_TRUE(std::ranges::is_sorted(fractions));
    EXPECT_EQ(fractions.back(), 1.0);

    // Cancelled while the first partition is read: the user gets what there is of it, and nothing
    // after it.
    WorkProgress* self = nullptr;
    WorkProgress impatient([&](double, const std::string& message) {
        if (message.find("partition 1") != std::string::npos)
            self->cancel();
    });
    self = &impatient;
    const auto part = QuickScanner::run(*disk, &impatient);
    EXPECT_EQ(places(part.volumes), Texts { "MBR, partition 1 @ 100" });
    EXPECT_TRUE(part.notes.empty());
}
