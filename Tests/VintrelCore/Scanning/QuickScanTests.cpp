#include "Tests/Images/FATImage.h"
#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/DeepScan.h"
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

TEST(QuickScanner, NamesEncryptedVolumes)
{
    const auto head = [](std::size_t at, std::string_view text) {
        Bytes bytes(512);
        std::ranges::copy(text, bytes.begin() + static_cast<std::ptrdiff_t>(at));
        return bytes;
    };
    auto coreStorage = head(88, "CS");
    coreStorage[8] = 1;
    coreStorage[10] = 0x10;
    const FATImage card({ .type = fat32, .clusters = 120 });
    Bytes toGo(card.bytes().begin(), card.bytes().begin() + 512);
    std::ranges::copy(bytesOf("MSWIN4.1"), toGo.begin() + 3);
    putLE(toGo, 424, 0x4AD8'2E29'4967'D63B, 8);
    putLE(toGo, 432, 0x01D0'E339'A3F6'9983, 8);
    const struct {
        Bytes bytes;
        std::string_view name; ///< empty: not encrypted
    } cases[] = {
        { toGo, "BitLocker" },
        { head(3, "-FVE-FS-"), "BitLocker" },
        { head(0, std::string_view("LUKS\xBA\xBE\0\1", 8)), "LUKS" },
        { head(0, std::string_view("LUKS\xBA\xBE\0\2", 8)), "LUKS" },
        { head(0, std::string_view("LUKS\xBA\xBE\0\3", 8)), "" },
        { coreStorage, "FileVault (CoreStorage)" },
        { head(88, "CS"), "" },
    };
    for (const auto& [bytes, name] : cases) {
        const Texts notes = name.empty() ? Texts {}
                                         : Texts { "kort er krypteret med " + std::string(name)
                                               + ". Indholdet kan kun læses med nøglen." };
        const auto disk = PartitionImage(64_KiB)
                              .gpt({ { basicDataGUID, 40, 90, u"kort" } })
                              .put(40, bytes)
                              .source();
        const auto result = QuickScanner::run(*disk, nullptr);
        EXPECT_EQ(result.notes, notes) << name;
        EXPECT_EQ(result.layout.entries.at(0).detected,
            name.empty() ? std::nullopt : std::optional(unknown));
        const auto bare = PartitionImage(64_KiB).put(0, bytes).source();
        EXPECT_EQ(QuickScanner::run(*bare, nullptr).layout.entries.size(), name.empty() ? 0u : 1u)
            << "a volume without a table";
    }
}

TEST(QuickScanner, EndsWhenPartitionsListMoreThanASourceHasRoomFor)
{
    // Three boot sectors side by side that share one root directory, the longest there is.
    constexpr std::uint16_t entries = 65'520, usualEntries = 512;
    const FATImage image({});
    Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    const auto sectorsBefore
        = static_cast<std::uint16_t>(image.entryOffset(FATImage::root, 0) / 512);
    const auto sectors = ByteView(boot).u32le(32) + (entries - usualEntries) / 16;
    putLE(boot, 17, entries, 2);
    putLE(boot, 32, sectors, 4);
    Bytes directory(std::size_t { entries } * 32);
    for (std::size_t i = 0; i < entries; ++i) {
        const auto name = std::to_string(10'000'000 + i) + "TXT ";
        std::ranges::copy(name, directory.begin() + static_cast<std::ptrdiff_t>(i * 32));
    }
    PartitionImage disk(3_MiB);
    std::vector<PartitionImage::GPTSlot> slots;
    for (std::uint64_t lba = 100; lba < 103; ++lba) {
        putLE(boot, 14, ByteView(image.bytes()).u16le(14) - (lba - 100), 2);
        disk.put(lba, boot);
        slots.push_back({ basicDataGUID, lba, 6'000 });
    }
    const auto source = disk.put(100u + sectorsBefore, directory).gpt(slots).source();
    const auto result = QuickScanner::run(*source, nullptr);
    EXPECT_EQ(
        places(result.volumes), (Texts { "GPT, partition 1 @ 100", "GPT, partition 2 @ 101" }));
    EXPECT_EQ(result.volumes[0]->root->totals().files, entries);
    EXPECT_EQ(result.notes,
        Texts { "Partitionerne rummer flere filer, end der er plads til på kilden. De sidste "
                "partitioner er ikke læst." });
    DeepScanResult finds;
    finds.boots.push_back({ .offset = 102 * 512, .type = fat16 });
    std::ranges::copy(boot, finds.boots.front().sector.begin());
    EXPECT_TRUE(DeepScanner::buildVolumes(*source, finds, result.volumes, nullptr).empty())
        << "the deep scan has no budget of its own";
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
