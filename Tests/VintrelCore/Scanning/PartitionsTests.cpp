#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Scanning/Partitions.h"

#include <gtest/gtest.h>

namespace {

using enum FileSystemType;
using Slots = std::vector<PartitionImage::MBRSlot>;
using GPTSlots = std::vector<PartitionImage::GPTSlot>;
using Texts = std::vector<std::string>;

constexpr auto unknownNote = "Der blev ikke fundet nogen gyldig partitionstabel. Brug dyb scanning "
                             "for at finde tabte partitioner.";
constexpr auto backupNote = "Den primære GPT-header var beskadiget – backup-headeren blev brugt.";
constexpr std::uint64_t farLBA = ~std::uint64_t { 0 };

/// Every entry in one line: number, scheme, type, first byte, length, name and what was detected.
Texts entriesOf(const PartitionLayout& layout)
{
    Texts texts;
    for (const auto& entry : layout.entries)
        texts.push_back(std::to_string(entry.index) + " " + entry.scheme + " " + entry.typeName
            + " " + std::to_string(entry.offset) + "+" + std::to_string(entry.size) + " "
            + entry.name + " " + std::string(entry.detected ? displayName(*entry.detected) : "-"));
    return texts;
}

void expectUnknown(const PartitionLayout& layout, const char* what)
{
    EXPECT_EQ(layout.scheme, "Ukendt") << what;
    EXPECT_TRUE(layout.entries.empty()) << what;
    EXPECT_EQ(layout.notes, Texts { unknownNote }) << what;
}

} // namespace

TEST(GPT, ListsItsUsedSlots)
{
    const auto layout
        = PartitionTable::read(*PartitionImage(1_MiB)
                                    .mbr({ { 0xEE, 1, 2047 } })
                                    .gpt({ { basicDataGUID, 100, 199, u"\u00D8 \U0001F4BE" }, {},
                                        { Bytes(16, 0xAB), 300, 300, std::u16string(36, u'x') },
                                        { linuxGUID, 400, farLBA, std::u16string(u"a\0b", 3) } })
                                    .volume(100, ntfs)
                                    .volume(400, ext)
                                    .source());
    EXPECT_EQ(layout.scheme, "GPT");
    EXPECT_TRUE(layout.notes.empty());
    EXPECT_EQ(entriesOf(layout),
        (Texts { "1 GPT Microsoft basisdata 51200+51200 Ø \U0001F4BE NTFS",
            "2 GPT GPT ABABABAB 153600+512 xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx -",
            "3 GPT Linux 204800+843776 a ext2/3/4" })); // cut at the end
}

TEST(GPT, BelievesNothingOfADamagedTable)
{
    const struct {
        const char* what;
        std::uint64_t first, last;
        PartitionImage::GPTPlaces places;
        std::size_t count;
    } cases[] = {
        { "last before first", 100, 99, {}, 0 },
        { "begins at the end of the disk", 256, 300, {}, 0 },
        { "start times sector size wraps to 512", (farLBA >> 9) + 2, farLBA, {}, 0 },
        { "end times sector size wraps to 0", 100, farLBA >> 9, {}, 1 },
        { "entries of 120 bytes", 100, 110, { .entrySize = 120 }, 0 },
        { "entries of 4096 bytes, of which 4 billion", 100, 110,
            { .claimedCount = ~0u, .entrySize = 4096 }, 1 },
        { "table whose offset wraps to 1024", 100, 110, { .tableLBA = (farLBA >> 9) + 3 }, 0 },
    };
    for (const auto& [what, first, last, places, count] : cases) {
        const auto layout = PartitionTable::read(
            *PartitionImage(128_KiB).gpt({ { linuxGUID, first, last } }, places).source());
        EXPECT_EQ(layout.entries.size(), count) << what;
        EXPECT_TRUE(count == 0 || layout.entries.at(0).size <= 128_KiB - 100 * 512) << what;
    }
    const GPTSlots many(1030, { basicDataGUID, 1000, 1001 });
    EXPECT_EQ(
        PartitionTable::read(*PartitionImage(1_MiB).gpt(many).source()).entries.size(), 1024u);
}

TEST(GPT, IsFoundByItsBackupAndWithEitherSectorSize)
{
    const GPTSlots slots { { linuxGUID, 40, 49 } };
    for (const std::size_t written : { 512u, 4096u })
        for (const std::uint32_t source : { 512u, 4096u }) {
            const std::size_t sectors = 1_MiB / written;
            const auto entry = "1 GPT Linux " + std::to_string(40 * written) + "+"
                + std::to_string(10 * written) + "  -";
            // A size that is no multiple of the sector's: the header lies in the last whole sector.
            auto image = PartitionImage(1_MiB + 100, written)
                             .gpt(slots, { .headerLBA = sectors - 1, .tableLBA = sectors - 5 });
            auto layout = PartitionTable::read(*image.source(source));
            EXPECT_EQ(entriesOf(layout), Texts { entry });
            EXPECT_EQ(layout.notes, Texts { backupNote });

            image.gpt(GPTSlots(2, slots[0])); // the primary one goes first, and needs no note
            layout = PartitionTable::read(*image.source(source));
            EXPECT_EQ(layout.entries.size(), 2u);
            EXPECT_TRUE(layout.notes.empty());
        }
}

TEST(MBR, ListsPrimaryAndLogicalPartitions)
{
    // A logical partition counts from its own EBR, the next EBR from the first one. The container
    // stands before a primary partition and is still listed after it.
    const auto layout = PartitionTable::read(
        *PartitionImage(1_MiB)
             .mbr({ { 0x0F, 100, 900 }, { 0x83, 63, 9, 0x80 }, { 0x85, 1500, 100 },
                 { 0x42, 0xFFFFFFFF, 9 } })
             .volume(63, fat12) // what is there, not what the table calls it
             .ebr(100, { { 0x07, 8, 50 }, { 0x05, 200, 100 } })
             .ebr(300, { { 0x00, 8, 50 }, { 0x85, 400, 100 } }) // nothing in it
             .ebr(500, { { 0x0B, 8, 0xFFFFFFFF }, { 0x0F, 500, 100 } })
             .ebr(600, { { 0x82, 0xFFFFFFF0, 9 }, { 0x83, 20, 9 } }) // no link …
             .ebr(120, { { 0x07, 8, 50 } })                          // … to this
             .ebr(1500, { { 0xAF, 10, 20 } })
             .volume(1510, hfsplus)
             .source());
    EXPECT_EQ(layout.scheme, "MBR");
    EXPECT_TRUE(layout.notes.empty());
    EXPECT_EQ(entriesOf(layout),
        (Texts { "1 MBR Linux 32256+4608  FAT12", "2 MBR (logisk) NTFS/exFAT 55296+25600  -",
            "3 MBR (logisk) FAT32 260096+788480  -",
            "4 MBR (logisk) Apple HFS+ 773120+10240  HFS+" }));

    auto large = PartitionImage(1_MiB, 4096)
                     .mbr({ { 0x05, 10, 99 }, { 0x83, 5, 1 } })
                     .ebr(10, { { 0x07, 2, 3 } });
    EXPECT_EQ(entriesOf(PartitionTable::read(*large.source(4096))),
        (Texts { "1 MBR Linux 20480+4096  -", "2 MBR (logisk) NTFS/exFAT 49152+12288  -" }));

    const auto loop = PartitionImage(1_MiB)
                          .mbr({ { 0x05, 100, 900 } })
                          .ebr(100, { { 0x07, 8, 50 }, { 0x05, 200, 9 } })
                          .ebr(300, { { 0x07, 8, 50 }, { 0x05, 200, 9 } })
                          .source();
    EXPECT_EQ(PartitionTable::read(*loop).entries.size(), 2u);
}

TEST(MBR, ListsWhatOtherSlotsOfAChainNameOnlyWhereAVolumeIs)
{
    const auto layout = PartitionTable::read(
        *PartitionImage(1_MiB)
             .mbr({ { 0x05, 100, 900 } })
             .ebr(100, { { 0x05, 200, 9 }, { 0x07, 8, 50 }, { 0x06, 70, 9 }, { 0x0B, 90, 9 } })
             .ebr(300, { { 0x06, 8, 50 }, {}, {}, { 0x85, 400, 9 } })
             .ebr(500, { { 0x06, 8, 50 }, { 0x05, 600, 9 } }) // the link leads nowhere
             .volume(108, ntfs)
             .volume(190, fat12)
             .volume(508, fat16)
             .source());
    EXPECT_EQ(entriesOf(layout),
        (Texts { "1 MBR (logisk) Type 0x05 153600+4608  -",
            "2 MBR (logisk) NTFS/exFAT 55296+25600  NTFS", "3 MBR (logisk) FAT32 97280+4608  FAT12",
            "4 MBR (logisk) FAT16 260096+25600  FAT16" }));
}

TEST(MBR, CountsInOtherSectorsWhenOnlyThoseLeadToAVolume)
{
    const Slots slots { { 0x0C, 20, 9 }, { 0x05, 40, 99 } };
    for (const std::uint32_t written : { 512u, 4096u }) {
        auto image = PartitionImage(1_MiB, written).mbr(slots).ebr(40, { { 0x07, 2, 3 } });
        const auto layout = PartitionTable::read(*image.volume(42, ntfs).source(4608 - written));
        EXPECT_EQ(layout.entries.size(), 2u);
        EXPECT_EQ(layout.entries.at(1).offset, 42 * written);
        EXPECT_EQ(layout.entries.at(1).detected, ntfs);
        EXPECT_EQ(layout.notes,
            Texts { "Partitionstabellen er læst med sektorer på " + std::to_string(written)
                + " byte; kun der giver den filsystemer." });
    }
}

TEST(MBR, IsRefusedWhenItSaysNothing)
{
    const std::pair<const char*, Slots> cases[] = {
        { "no slot in use", { { 0x00, 63, 100 }, { 0x0C, 63, 0 } } },
        { "status 81", { { 0x0C, 63, 100, 0x81 } } },
        { "starts at the end of the disk", { { 0x0C, 2048, 100 } } },
        { "GPT's protective slot", { { 0x0C, 63, 100 }, { 0xEE, 1, 2047 } } },
        { "an extended partition without a chain", { { 0x05, 100, 100 } } },
    };
    for (const auto& [what, slots] : cases)
        expectUnknown(PartitionTable::read(*PartitionImage(1_MiB).mbr(slots).source()), what);
    const auto unreadable = PartitionImage(1_MiB).mbr({ { 0x0C, 63, 100 } }).source();
    unreadable->addSimulatedBadRange({ 0, 512 });
    expectUnknown(PartitionTable::read(*unreadable), "unreadable");
    expectUnknown(PartitionTable::read(*makeSource({})), "nothing at all");
}

TEST(PartitionTable, AFileSystemOverTheWholeSourceGoesBeforeMBRAndAfterGPT)
{
    for (const auto type : { fat32, exfat, ntfs, hfsplus, apfs, ext }) {
        auto image = PartitionImage(1_MiB + 5);
        auto start = volumeStart(type); // with boot code that looks like a slot
        start[446 + 4] = 0x0C;
        start[446 + 8] = start[446 + 12] = 20;
        store<std::uint16_t>(start, 510, 0xAA55);
        const auto layout = PartitionTable::read(*image.put(0, start).source());
        EXPECT_EQ(layout.scheme, "Ingen partitionstabel");
        EXPECT_EQ(entriesOf(layout),
            Texts { "1 Ingen Hele disken 0+1048581  " + std::string(displayName(type)) });
        EXPECT_TRUE(layout.notes.empty());
        // What the order hides is told.
        const auto inSlot = PartitionTable::read(*image.volume(20, fat16).source());
        EXPECT_EQ(inSlot.scheme, "Ingen partitionstabel");
        EXPECT_EQ(inSlot.notes,
            Texts { "Disken har også en partitionstabel med filsystemer (FAT16); de vises kun ved "
                    "dyb scanning." });
        image.gpt({ { basicDataGUID, 100, 199 } }, { .tableLBA = 20 });
        const auto byGPT = PartitionTable::read(*image.source());
        EXPECT_EQ(byGPT.scheme, "GPT");
        EXPECT_EQ(byGPT.notes,
            Texts { "Disken begynder også med et " + std::string(displayName(type))
                + "-filsystem; det vises kun ved dyb scanning." });
    }
}
