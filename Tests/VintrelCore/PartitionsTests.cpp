#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Partitions.h"

#include <gtest/gtest.h>

namespace {

using enum FileSystemType;
using Slots = std::vector<PartitionImage::MBRSlot>;
using GPTSlots = std::vector<PartitionImage::GPTSlot>;

constexpr auto unknownNote
    = "Der blev ikke fundet nogen gyldig partitionstabel. Brug dyb scanning for at finde tabte partitioner.";
constexpr auto backupNote = "Den primære GPT-header var beskadiget – backup-headeren blev brugt.";
constexpr std::uint64_t farLBA = ~std::uint64_t { 0 };

struct Place {
    std::uint64_t offset, size;
    bool operator==(const Place&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Place& place) { return out << place.offset << "+" << place.size; }

std::vector<Place> places(const PartitionLayout& layout)
{
    std::vector<Place> places;
    for (const auto& entry : layout.entries)
        places.push_back({ entry.offset, entry.size });
    return places;
}

void expectUnknown(const PartitionLayout& layout, const char* what)
{
    EXPECT_EQ(layout.scheme, "Ukendt") << what;
    EXPECT_TRUE(layout.entries.empty()) << what;
    EXPECT_EQ(layout.notes, std::vector<std::string> { unknownNote }) << what;
}

} // namespace

TEST(GPT, ListsItsUsedSlots)
{
    const std::u16string longest(36, u'x');
    const auto disk = PartitionImage(1_MiB)
                          .mbr({ { 0xEE, 1, 2047 } })
                          .gpt({ { "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", 100, 199, u"EFI \u00D8 \U0001F4BE" }, {},
                              { "01234567-89AB-CDEF-0123-456789ABCDEF", 300, 300, longest },
                              { linuxGUID, 400, farLBA, std::u16string(u"a\0b", 3) } })
                          .volume(100, ntfs)
                          .volume(400, ext)
                          .source();
    const auto layout = PartitionTable::read(*disk);
    EXPECT_EQ(layout.scheme, "GPT");
    EXPECT_TRUE(layout.notes.empty());
    ASSERT_EQ(places(layout),
        (std::vector<Place> { { 51200, 51200 }, { 153600, 512 }, { 204800, 1_MiB - 204800 } })); // cut at the end
    const struct {
        const char *type, *name;
        std::optional<FileSystemType> detected;
    } expected[] = { { "EFI-system", "EFI Ø \U0001F4BE", ntfs },
        { "GPT 01234567", "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", std::nullopt }, { "Linux", "a", ext } };
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const auto& entry = layout.entries[i];
        EXPECT_EQ(entry.index, static_cast<int>(i) + 1);
        EXPECT_EQ(entry.scheme, "GPT");
        EXPECT_EQ(entry.typeName, expected[i].type);
        EXPECT_EQ(entry.name, expected[i].name);
        EXPECT_EQ(entry.detected, expected[i].detected);
    }
    EXPECT_NE(layout.entries[0].id, layout.entries[1].id);
}

TEST(GPT, LeavesOutPartitionsThatCannotBe)
{
    const auto slot = [](std::uint64_t first, std::uint64_t last) {
        return GPTSlots { { basicDataGUID, first, last }, { basicDataGUID, 64, 64 } };
    };
    const struct {
        const char* what;
        GPTSlots slots;
        std::size_t count;
    } cases[] = {
        { "last before first", slot(100, 99), 1 },
        { "one sector", slot(100, 100), 2 },
        { "begins at the end of the disk", slot(128, 200), 1 },
        { "begins in the last sector", slot(127, 200), 2 },
        { "start times sector size wraps to 512", slot((farLBA >> 9) + 2, farLBA), 1 },
        { "end times sector size wraps to 0", slot(100, farLBA >> 9), 2 },
    };
    for (const auto& [what, slots, count] : cases) {
        const auto layout = PartitionTable::read(*PartitionImage(64_KiB).gpt(slots).source());
        ASSERT_EQ(layout.entries.size(), count) << what;
        EXPECT_EQ(layout.entries.back().index, count) << what;
        for (const auto& entry : layout.entries)
            EXPECT_LE(entry.size, 64_KiB - entry.offset) << what;
    }
}

TEST(GPT, BelievesNoSizeOfADamagedHeader)
{
    const GPTSlots one { { basicDataGUID, 100, 110 } };
    const struct {
        const char* what;
        PartitionImage::GPTPlaces places;
        std::size_t count;
    } cases[] = {
        { "entries of 120 bytes", { .entrySize = 120 }, 0 },
        { "entries of 4096 bytes", { .entrySize = 4096 }, 1 },
        { "entries of 4224 bytes", { .entrySize = 4224 }, 0 },
        { "entries of 136 bytes", { .entrySize = 136 }, 1 },
        { "4 billion entries", { .claimedCount = 0xFFFFFFFF, .entrySize = 4096 }, 1 },
        { "table in the last sector", { .tableLBA = 255 }, 1 },
        { "table at the end of the disk", { .tableLBA = 256 }, 0 },
        { "table whose offset wraps to 1024", { .tableLBA = (farLBA >> 9) + 3 }, 0 },
    };
    for (const auto& [what, places, count] : cases) {
        const auto layout = PartitionTable::read(*PartitionImage(128_KiB).gpt(one, places).source());
        EXPECT_EQ(layout.entries.size(), count) << what;
    }
    // 100,000 entries are claimed, and 1030 are there.
    const GPTSlots many(1030, { basicDataGUID, 1000, 1001 });
    const auto disk = PartitionImage(1_MiB).gpt(many, { .claimedCount = 100'000 }).source();
    EXPECT_EQ(PartitionTable::read(*disk).entries.size(), 1024u);
    expectUnknown(PartitionTable::read(*PartitionImage(64_KiB).gpt({ {}, {} }).source()), "no slot in use");
}

TEST(GPT, IsFoundByItsBackupHeader)
{
    const GPTSlots slots { { basicDataGUID, 40, 50 } };
    for (const std::size_t sectorSize : { 512u, 4096u }) {
        const std::size_t sectors = 1_MiB / sectorSize;
        // A size that is no multiple of the sector's: the header lies in the last whole sector.
        auto image
            = PartitionImage(1_MiB + 100, sectorSize).gpt(slots, { .headerLBA = sectors - 1, .tableLBA = sectors - 5 });
        auto layout = PartitionTable::read(*image.source());
        EXPECT_EQ(places(layout), (std::vector<Place> { { 40 * sectorSize, 11 * sectorSize } }));
        EXPECT_EQ(layout.notes, std::vector<std::string> { backupNote });

        image.gpt(GPTSlots(2, slots[0])); // the primary one goes first, and needs no note
        layout = PartitionTable::read(*image.source());
        EXPECT_EQ(layout.entries.size(), 2u);
        EXPECT_TRUE(layout.notes.empty());
    }
    // Damage that the disk itself reports reads as zeros.
    const auto disk = PartitionImage(1_MiB).gpt(slots).gpt(slots, { .headerLBA = 2047, .tableLBA = 2040 }).source();
    disk->addSimulatedBadRange({ 512, 1024 });
    EXPECT_EQ(PartitionTable::read(*disk).notes, std::vector<std::string> { backupNote });
}

TEST(GPT, IsReadWithOtherSectorsThanTheSource)
{
    const GPTSlots slots { { basicDataGUID, 10, 19 } };
    for (const std::size_t written : { 512u, 4096u })
        for (const std::uint32_t source : { 512u, 4096u }) {
            const auto layout = PartitionTable::read(*PartitionImage(1_MiB, written).gpt(slots).source(source));
            EXPECT_EQ(places(layout), (std::vector<Place> { { 10 * written, 10 * written } })) << written << source;
        }
}

TEST(PartitionTypes, GUIDsAndNames)
{
    const Bytes bytes { 0xFF, 0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44, 0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99,
        0xC7 };
    EXPECT_EQ(PartitionTable::guid(bytes, 1), basicDataGUID);
    const std::pair<const char*, const char*> guids[] = {
        { "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basisdata" },
        { "48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+" },
        { "7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS" },
        { "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI-system" },
        { "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserveret" },
        { "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows gendannelse" },
        { "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux" },
        { "426F6F74-0000-11AA-AA11-00306543ECAC", "Apple Boot" },
        { "52637672-7900-11AA-AA11-00306543ECAC", "Apple Recovery" },
        { "69646961-6700-11AA-AA11-00306543ECAC", "Apple APFS ISC" },
        { "EBD0A0A2-B9E5-4433-87C0-68B6B72699C8", "GPT EBD0A0A2" },
    };
    for (const auto& [guid, name] : guids)
        EXPECT_EQ(PartitionTable::gptTypeName(guid), name);

    const std::pair<std::uint8_t, const char*> types[] = { { 0x01, "FAT12" }, { 0x04, "FAT16" }, { 0x06, "FAT16" },
        { 0x0E, "FAT16" }, { 0x07, "NTFS/exFAT" }, { 0x0B, "FAT32" }, { 0x0C, "FAT32" }, { 0x17, "NTFS (skjult)" },
        { 0x1B, "FAT32 (skjult)" }, { 0x1C, "FAT32 (skjult)" }, { 0x27, "Windows gendannelse" }, { 0x82, "Linux swap" },
        { 0x83, "Linux" }, { 0xAB, "Apple Boot" }, { 0xAF, "Apple HFS+" }, { 0xEE, "GPT-beskyttelse" },
        { 0x02, "Type 0x02" }, { 0xDA, "Type 0xDA" } };
    for (const auto& [type, name] : types)
        EXPECT_EQ(PartitionTable::mbrTypeName(type), name);
}

TEST(MBR, ListsItsUsedSlots)
{
    const Slots slots { { 0x0C, 63, 100, 0x80 }, { 0x07, 200, 0 }, { 0x83, 300, 0xFFFFFFFF }, { 0x42, 0xFFFFFFFF, 9 } };
    auto image = PartitionImage(1_MiB).mbr(slots).volume(63, fat12);
    const auto layout = PartitionTable::read(*image.source());
    EXPECT_EQ(layout.scheme, "MBR");
    EXPECT_TRUE(layout.notes.empty());
    ASSERT_EQ(places(layout), (std::vector<Place> { { 63 * 512, 51200 }, { 153600, 1_MiB - 153600 } }));
    EXPECT_EQ(layout.entries[0].typeName, "FAT32");
    EXPECT_EQ(layout.entries[0].scheme, "MBR");
    EXPECT_EQ(layout.entries[0].detected, fat12); // what is there, not what the table calls it
    EXPECT_EQ(layout.entries[1].index, 2);
    EXPECT_EQ(layout.entries[1].detected, std::nullopt);

    const auto large = PartitionTable::read(*PartitionImage(1_MiB).mbr({ { 0x0C, 63, 100 } }).source(4096));
    EXPECT_EQ(places(large), (std::vector<Place> { { 63 * 4096, 409600 } }));
}

TEST(MBR, IsRefusedWhenItSaysNothing)
{
    const struct {
        const char* what;
        Slots slots;
    } cases[] = {
        { "no slot in use", {} },
        { "status 01", { { 0x0C, 63, 100, 0x01 } } },
        { "status 81", { { 0x0C, 63, 100, 0x81 } } },
        { "type 0", { { 0x00, 63, 100 } } },
        { "starts at the end of the disk", { { 0x0C, 2048, 100 } } },
        { "GPT's protective slot", { { 0x0C, 63, 100 }, { 0xEE, 1, 2047 } } },
        { "an extended partition without a chain", { { 0x05, 100, 100 } } },
        { "an extended partition beyond the end", { { 0x05, 2048, 100 } } },
    };
    for (const auto& [what, slots] : cases)
        expectUnknown(PartitionTable::read(*PartitionImage(1_MiB).mbr(slots).source()), what);
    auto unreadable = PartitionImage(1_MiB).mbr({ { 0x0C, 63, 100 } }).source();
    unreadable->addSimulatedBadRange({ 0, 512 });
    expectUnknown(PartitionTable::read(*unreadable), "unreadable");
    expectUnknown(PartitionTable::read(*makeSource(Bytes(1_MiB))), "zeros");
    expectUnknown(PartitionTable::read(*makeSource({})), "nothing at all");
    // An unused protective slot is just unused.
    EXPECT_EQ(
        PartitionTable::read(*PartitionImage(1_MiB).mbr({ { 0xEE, 1, 0 }, { 0x0C, 63, 9 } }).source()).entries.size(),
        1u);
}

TEST(MBR, FollowsLogicalPartitions)
{
    // A logical partition counts from its own EBR, the next EBR from the first one. The container stands before a
    // primary partition and is still listed after it.
    const auto disk = PartitionImage(1_MiB)
                          .mbr({ { 0x0F, 100, 900 }, { 0x83, 63, 9 }, { 0x85, 1500, 100 } })
                          .ebr(100, { { 0x07, 8, 50 }, { 0x05, 200, 100 } })
                          .ebr(300, { { 0x00, 8, 50 }, { 0x85, 400, 100 } }) // nothing in it
                          .ebr(500, { { 0x0B, 8, 0xFFFFFFFF }, { 0x0F, 500, 100 } })
                          .ebr(600, { { 0x82, 0xFFFFFFF0, 9 }, { 0x83, 20, 9 } }) // no link
                          .ebr(1500, { { 0xAF, 10, 20 } })
                          .volume(1510, hfsplus)
                          .source();
    const auto layout = PartitionTable::read(*disk);
    ASSERT_EQ(places(layout),
        (std::vector<Place> { { 63 * 512, 9 * 512 }, { 108 * 512, 50 * 512 }, { 508 * 512, 1_MiB - 508 * 512 },
            { 1510 * 512, 20 * 512 } }));
    for (std::size_t i = 0; i < layout.entries.size(); ++i) {
        EXPECT_EQ(layout.entries[i].index, static_cast<int>(i) + 1);
        EXPECT_EQ(layout.entries[i].scheme, i == 0 ? "MBR" : "MBR (logisk)");
    }
    EXPECT_EQ(layout.entries[3].typeName, "Apple HFS+");
    EXPECT_EQ(layout.entries[3].detected, hfsplus);

    const auto large = PartitionImage(1_MiB, 4096).mbr({ { 0x05, 10, 99 } }).ebr(10, { { 0x07, 2, 3 } }).source(4096);
    EXPECT_EQ(places(PartitionTable::read(*large)), (std::vector<Place> { { 12 * 4096, 3 * 4096 } }));
}

TEST(MBR, AChainThatLoopsEndsAfter128Links)
{
    const auto disk = PartitionImage(1_MiB)
                          .mbr({ { 0x05, 100, 900 } })
                          .ebr(100, { { 0x07, 8, 50 }, { 0x05, 200, 9 } })
                          .ebr(300, { { 0x07, 8, 50 }, { 0x05, 200, 9 } })
                          .source();
    EXPECT_EQ(PartitionTable::read(*disk).entries.size(), 128u);
}

TEST(PartitionTable, AFileSystemOverTheWholeSourceGoesBeforeMBR)
{
    for (const auto type : { fat12, fat32, exfat, ntfs, hfsplus, apfs, ext }) {
        auto start = volumeStart(type);
        // Boot code that looks like a slot.
        store<std::uint8_t>(start, 446 + 4, 0x0C);
        store<std::uint32_t>(start, 446 + 8, 1);
        store<std::uint32_t>(start, 446 + 12, 1);
        store<std::uint16_t>(start, 510, 0xAA55);
        const auto layout = PartitionTable::read(*PartitionImage(1_MiB + 5).put(0, start).source());
        EXPECT_EQ(layout.scheme, "Ingen partitionstabel");
        ASSERT_EQ(places(layout), (std::vector<Place> { { 0, 1_MiB + 5 } }));
        EXPECT_EQ(layout.entries[0].index, 1);
        EXPECT_EQ(layout.entries[0].scheme, "Ingen");
        EXPECT_EQ(layout.entries[0].typeName, "Hele disken");
        EXPECT_EQ(layout.entries[0].detected, type);
        EXPECT_TRUE(layout.notes.empty());
    }
    // GPT goes before both.
    const auto disk
        = PartitionImage(1_MiB).volume(0, fat12).gpt({ { basicDataGUID, 100, 199 } }, { .tableLBA = 20 }).source();
    EXPECT_EQ(PartitionTable::read(*disk).scheme, "GPT");
}
