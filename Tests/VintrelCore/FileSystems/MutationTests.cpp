// Damaged copies of small images by the thousand: none may crash, hang, or make the reader ask for
// absurd memory. The seeds are fixed, so that what fails once fails again.

#include "Tests/Images/APFSImage.h"
#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/ExtImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Images/PartitionImage.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Recovery/LZNT1.h"
#include "VintrelCore/Scanning/DeepScan.h"
#include "VintrelCore/Scanning/QuickScan.h"
#include "VintrelCore/Scanning/RecycleBin.h"

#include <gtest/gtest.h>

#include <random>

namespace {

/// Damages a few places, most of them among the first `hot` bytes, where the structures are.
void damage(Bytes& bytes, std::size_t hot, std::mt19937& random)
{
    constexpr std::uint8_t telling[]
        = { 0x00, 0x01, 0x7F, 0x80, 0xFF, 0xE5, 0x0F, 0x10, 0x2E, 0x55 };
    for (auto count = 1 + random() % 12; count > 0; --count) {
        const auto at = random() % (random() % 4 != 0 ? std::min(hot, bytes.size()) : bytes.size());
        switch (random() % 4) {
        case 0:
            bytes[at] = static_cast<std::uint8_t>(random());
            break;
        case 1:
            bytes[at] = telling[random() % std::size(telling)];
            break;
        case 2:
            bytes[at] ^= static_cast<std::uint8_t>(1 << random() % 8);
            break;
        default: // a stretch of a sector from elsewhere
            for (std::size_t i = 0; i < 64 && at + i < bytes.size(); ++i)
                bytes[at + i] = bytes[random() % bytes.size()];
        }
    }
    if (random() % 16 == 0)
        bytes.resize(random() % bytes.size());
}

/// Everything that a user can ask of a source.
void exercise(const Bytes& bytes)
{
    const auto source = makeSource(bytes);
    auto result = QuickScanner::run(*source, nullptr);
    QuickScanner::readDeepOnly(*source, result, nullptr);
    RecycleBin::noteOriginalPaths(*source, result.volumes, nullptr);
    for (const auto& volume : result.volumes) {
        const auto totals = volume->root->totals();
        ASSERT_LT(totals.files + totals.folders, bytes.size()) << "more entries than bytes";
        ASSERT_LT(source->bytesRead(), 64 * bytes.size() + 1_MiB) << "reads without end";
        for (const auto* file : volume->root->allFiles()) {
            std::uint64_t delivered = 0;
            FileReader::stream(
                *file, *source, 64_KiB, 256_KiB, [&](const FileReader::Piece& piece) {
                    delivered += piece.size();
                    return true;
                });
            for (const auto& [kind, chance, name, data, size] :
                file->attachments ? *file->attachments : Attachments())
                FileReader::stream({ data, size }, *source, 64_KiB, 256_KiB,
                    [](const FileReader::Piece&) { return true; });
            const auto wanted = std::holds_alternative<NoData>(file->data) ? 0 : file->size;
            ASSERT_EQ(delivered, std::min<std::uint64_t>(wanted, 256_KiB)) << file->path();
        }
        std::vector<std::uint64_t> sectors;
        for (std::uint64_t offset = 0; offset < bytes.size(); offset += 512)
            if (FATParser::looksLikeDirectorySector(bytes, static_cast<std::int64_t>(offset)))
                sectors.push_back(offset);
        for (const auto& rebuilt : FATParser::rebuild(
                 *source, sectors, { .heaps = {}, .volumeStarts = {}, .carved = {} }, nullptr))
            ASSERT_LT(rebuilt->root->totals().files, bytes.size());
        if (const auto lost = FATParser::lostEntries(*volume, sectors, nullptr))
            volume->root->add(FileNode::makeFolder("x", EntryStatus::orphaned));
        sectors.clear();
        for (std::uint64_t offset = 0; offset < bytes.size(); offset += 512)
            if (ExFATParser::looksLikeDirectorySector(bytes, static_cast<std::int64_t>(offset)))
                sectors.push_back(offset);
        for (const auto& rebuilt : ExFATParser::rebuild(
                 *source, sectors, { .heaps = {}, .volumeStarts = {}, .carved = {} }, nullptr))
            ASSERT_LT(rebuilt->root->totals().files, bytes.size());
        const auto lostInExFAT = ExFATParser::lostEntries(*volume, sectors, nullptr);
        ASSERT_LT(lostInExFAT ? lostInExFAT->totals().files : 0, bytes.size());
        std::vector<std::uint64_t> leaves;
        for (std::uint64_t offset = 0; offset < bytes.size(); offset += APFSImage::blockSize)
            if (APFSParser::looksLikeFSTreeLeaf(bytes, static_cast<std::int64_t>(offset)))
                leaves.push_back(offset);
        const auto lost = APFSParser::lostFiles(*source, *volume, leaves, nullptr);
        ASSERT_LT(lost ? lost->totals().files : 0, bytes.size());
    }
}

/// What a deep scan makes of it. What the tables name is not known to it, so that it has to find
/// everything itself.
void exerciseDeep(const Bytes& bytes)
{
    const auto source = makeSource(bytes);
    const auto found = DeepScanner(*source).run(nullptr);
    const auto volumes = DeepScanner::buildVolumes(*source, found, {}, nullptr);
    for (const auto& [volume, folder] : DeepScanner::extraFolders(*source, volumes, found, nullptr))
        ASSERT_LT(folder->totals().files, bytes.size());
    for (const auto& volume : volumes) {
        const auto totals = volume->root->totals();
        ASSERT_LT(totals.files + totals.folders, bytes.size()) << "more entries than bytes";
    }
    ASSERT_LT(volumes.size(), 64u);
    ASSERT_LT(source->bytesRead(), 256 * bytes.size() + 1_MiB) << "reads without end";
}

/// One in so many rounds is swept too, which takes longer than all the rest of it.
constexpr int deepShare = 4;

/// Exercises damaged copies of an image. The structures lie before the byte `hot`.
template <class Image>
void exerciseDamaged(const Image& sound, std::uint64_t hot, int rounds, unsigned seed)
{
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto image = sound;
        damage(image.bytes(), static_cast<std::size_t>(hot), random);
        // A wrong checksum alone would hide what lies behind it: half of the images get right ones
        // again.
        if constexpr (requires { image.renewChecksums(); })
            if (round % 2 == 0)
                image.renewChecksums();
        ASSERT_NO_FATAL_FAILURE(exercise(image.bytes()));
        if (round % deepShare == 0) {
            ASSERT_NO_FATAL_FAILURE(exerciseDeep(image.bytes()));
        }
    }
}

FATImage smallCard(FileSystemType type)
{
    FATImage image({ .type = type, .clusters = type == FileSystemType::fat16 ? 4085u : 120u });
    const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " }, 2);
    for (int i = 0; i < 8; ++i)
        image.addFile(folder,
            { .name = "IMG_00" + std::to_string(10 + i) + "JPG",
                .longName = u"Et noget længere navn.jpg" },
            patternBytes(700));
    const auto deleted = image.addFolder(folder, { .name = "SLETTET    " });
    image.addFile(deleted, { .name = "INDE    TXT" }, patternBytes(600));
    image.remove(folder, "SLETTET    ");
    image.remove(folder, "IMG_0012JPG");
    return image;
}

/// A volume with something of everything: folders in each other, content of every kind, deleted
/// files, extension records.
NTFSImage smallNTFSVolume()
{
    NTFSImage image(
        { .clusterSize = 512, .clusters = 400, .records = 48, .mft = { { 16, 33 }, { 60, 63 } } });
    image.putFolder(20, NTFSImage::root, u"mappe");
    image.putFolder(21, { 20, 1 }, u"inde i mappen", false, 2);
    image.putFile(22, { 21, 1 }, u"slettet.txt", patternBytes(1700), false);
    image.putFile(23, { 20, 1 }, u"lille.txt", bytesOf("lille"));
    const auto runs = image.store(patternBytes(6000));
    const std::uint64_t lcn = *runs[0].lcn;
    const auto file
        = [&](std::uint64_t number, std::u16string_view name, std::vector<Bytes> attributes) {
              attributes.insert(attributes.begin(),
                  { NTFSImage::standardInformation(),
                      NTFSImage::fileName(NTFSImage::root, u"KORT~1.TXT", 2),
                      NTFSImage::fileName({ 20, 1 }, name) });
              image.put(number, { .attributes = std::move(attributes) });
          };
    file(24, u"i stykker",
        { NTFSImage::data(
              { .runs = { { lcn + 6, 3 }, { std::nullopt, 2 }, { lcn, 4 }, { lcn + 5, 1 } },
                  .size = 5000 }),
            NTFSImage::withName(
                NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 2048 }), u"strøm") });
    file(25, u"pakket",
        { NTFSImage::data(
            { .runs = { { lcn, 4 }, { lcn + 4, 2 }, { std::nullopt, 2 }, { std::nullopt, 4 } },
                .size = 5500,
                .initSize = 5000,
                .flags = 1,
                .compressionUnit = 2 }) });
    const auto list = NTFSImage::listContent({ { 0x10, { 26, 1 } }, { 0x30, { 41, 1 } },
        { 0x80, { 26, 1 } }, { 0x80, { 42, 1 }, 4 }, { 0x80, { 43, 1 }, 8 } });
    const auto listRuns = image.store(list);
    file(26, u"lang liste",
        { NTFSImage::nonResident(0x20, { .runs = listRuns, .size = list.size() }),
            NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 6000 }) });
    file(27, u"kort liste",
        { NTFSImage::attribute(0x20, list),
            NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 2048 }) });
    image.put(41,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::fileName(NTFSImage::root, u"andet navn") } });
    image.put(42,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::data({ .runs = { { lcn + 4, 4 } }, .startVCN = 4 }) } });
    image.put(43,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::data({ .runs = { { lcn + 8, 4 } }, .startVCN = 8 }) } });
    for (std::uint64_t number = 28; number < 41; ++number)
        image.putFile(number, { number % 3 == 0 ? 20u : number - 1, 1 }, u"fil",
            patternBytes(number * 20), number % 2 == 0);
    Bytes index(60);
    store<std::uint64_t>(index, 0, 2);
    store<std::uint64_t>(index, 16, NTFSImage::modification);
    store<std::uint64_t>(index, 28, 0x005C'003A'0043); // "C:\"
    store<std::uint64_t>(index, 34, 0x0074'002E'0061); // "a.t"
    image.putFile(44, { 20, 1 }, u"$IABC123.t", index);
    image.putFile(45, { 20, 1 }, u"$RABC123.t", bytesOf("x"));
    Bytes bin(820);
    store<std::uint32_t>(bin, 12, 800);
    store<std::uint64_t>(bin, 20 + 268, NTFSImage::modification);
    store<std::uint64_t>(bin, 20 + 280, 0x005C'003A'0043);
    store<std::uint64_t>(bin, 20 + 286, 0x0061);
    image.putFile(46, { 20, 1 }, u"INFO2", bin);
    image.putFile(47, { 20, 1 }, u"Da0", bytesOf("x"));
    return image;
}

/// Damages fields of random records of an MFT, which know of each other by offset and length; noise
/// alone seldom gets past the signatures.
void damageRecords(NTFSImage& image, std::mt19937& random)
{
    constexpr std::uint64_t numbers[] = { 0, 1, 2, 5, 11, 15, 16, 20, 26, 42, 47, 48, 0x7F, 0x80,
        0xFF, 0x3FF, 0x7FFF, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFF, std::uint64_t { 1 } << 40,
        std::uint64_t { 1 } << 62, ~std::uint64_t { 0 } };
    constexpr std::uint64_t headerFields[] = { 0, 4, 6, 16, 20, 22, 24, 32, 38 };
    constexpr std::uint64_t attributeFields[]
        = { 0, 4, 8, 9, 12, 16, 20, 24, 32, 34, 40, 46, 48, 56, 64, 65, 66, 88 };
    for (auto count = 1 + random() % 10; count > 0; --count) {
        const std::uint64_t record = random() % 4 == 0 ? 0 : random() % 44;
        const auto u16 = [&](std::uint64_t at) {
            return ByteView(image.bytes())
                .u16le(static_cast<std::int64_t>(image.recordOffset(record, at)));
        };
        std::uint64_t at = headerFields[random() % std::size(headerFields)];
        if (random() % 4 != 0) {
            std::uint64_t attribute = u16(20);
            for (auto steps = random() % 5;
                 steps > 0 && attribute < 900 && u16(attribute + 4) >= 16; --steps)
                attribute += u16(attribute + 4);
            at = attribute + attributeFields[random() % std::size(attributeFields)];
        }
        const std::uint64_t value
            = random() % 3 == 0 ? random() : numbers[random() % std::size(numbers)];
        const std::uint64_t width = std::uint64_t { 1 } << random() % 4;
        for (std::uint64_t i = 0; i < width; ++i)
            image.bytes()[image.recordOffset(record, std::min<std::uint64_t>(at + i, 1023))]
                = static_cast<std::uint8_t>(value >> 8 * i);
    }
}

} // namespace

TEST(Mutation, IsOutlivedByTheReaderOfFAT)
{
    for (const auto type :
        { FileSystemType::fat12, FileSystemType::fat16, FileSystemType::fat32 }) {
        SCOPED_TRACE(displayName(type));
        const auto sound = smallCard(type);
        const int rounds
            = type == FileSystemType::fat16 ? 150 : 1500; // a FAT16 volume has 2 MiB at the least
        exerciseDamaged(sound, sound.offsetOf(40), rounds, static_cast<unsigned>(type) + 1);
    }
}

TEST(Mutation, IsOutlivedByTheReaderOfExFAT)
{
    ExFATImage sound({ .clusters = 120 });
    const auto folder
        = sound.addFolder(sound.root(), { .name = u"DCIM", .isContiguous = false }, 3);
    for (int i = 0; i < 8; ++i)
        sound.addFile(folder, { .name = u"Et noget længere navn.jpg", .isContiguous = i % 2 == 0 },
            patternBytes(700));
    const auto deleted = sound.addFolder(folder, { .name = u"slettet" });
    sound.addFile(deleted, { .name = u"inde.txt", .isContiguous = false }, patternBytes(600));
    sound.remove(u"slettet");
    exerciseDamaged(sound, sound.offsetOf(50), 2000, 77);
}

TEST(Mutation, IsOutlivedByTheReaderOfExt)
{
    ExtImage sound;
    for (std::uint32_t number = 13; number < 20; ++number)
        sound.putFile(number, 100 + number, "indhold");
    sound.putInode(20, { .size = 9000, .extents = { { 0, 200, 2 }, { 4, 300, 5 } }, .node = 131 });
    sound.putInode(21,
        { .size = 20'000,
            .extents = { { 0, 210, 1 }, { 3, 220, 1 }, { 12, 230, 1 }, { 13, 230, 1 } },
            .hasLists = true });
    sound.putFolder(12, ExtImage::root, 130, { { 13, "en" }, { 14, "to" }, { 20, "knude" } });
    sound.putFolder(
        ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" }, { 21, "liste" } });
    sound.commit({ ExtImage::tableBlockOf(13), 130, ExtImage::bitmapBlock });
    sound.putFolder(12, ExtImage::root, 130, { { 14, "to" } });
    sound.removeInode(13);
    sound.commit({ ExtImage::tableBlockOf(13), 130, ExtImage::bitmapBlock }, { 150 });
    sound.demandReplay();
    exerciseDamaged(sound, ExtImage::offsetOf(48), 2000, 91);
}

TEST(Mutation, IsOutlivedByTheReaderOfHFSPlus)
{
    HFSPlusImage sound;
    sound.setLeaf(2,
        { { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true },
            { .parent = 2, .name = u"mappe", .id = 20, .isFolder = true },
            { .parent = 20,
                .name = u"fil",
                .id = 21,
                .size = 2000,
                .runs = { { 100, 1 }, { 120, 1 } } } });
    sound.setLeaf(
        3, { { .parent = 20, .name = u"fil 2", .id = 22, .size = 9000, .runs = { { 130, 20 } } } });
    sound.setLeaf(
        5, { { .parent = 20, .name = u"slettet", .id = 23, .size = 900, .runs = { { 110, 2 } } } });
    sound.chain({ 2, 3 });
    sound.addOverflow(21, 2, { { 140, 2 } });
    exerciseDamaged(sound, HFSPlusImage::nodeOffset(6), 3000, 31);
}

TEST(Mutation, IsOutlivedByTheReaderOfNTFS)
{
    const auto sound = smallNTFSVolume();
    exerciseDamaged(sound, sound.offsetOf(16), 500, 55); // the boot sector
    std::mt19937 random(54);
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto image = sound;
        damageRecords(image, random);
        if (round % 4 == 1) // a byte of what the Recycle Bin says of its files
            image.bytes()[image.recordOffset(44 + random() % 3, random() % 512)]
                = static_cast<std::uint8_t>(random());
        if (round % 2 == 0) // that the copy of the damaged record is damaged too
            for (std::uint64_t at = 0; at < 1024; ++at)
                image.bytes()[image.offsetOf(image.mirrorLCN()) + at]
                    = image.bytes()[image.recordOffset(0, at)];
        ASSERT_NO_FATAL_FAILURE(exercise(image.bytes()));
        if (round % 8 == 0) // without a boot sector; half of these without the first record too
            image.bytes()[3] = 0;
        if (round % 16 == 0)
            image.bytes()[image.recordOffset(0)] = 0;
        if (round % deepShare == 0) {
            ASSERT_NO_FATAL_FAILURE(exerciseDeep(image.bytes()));
        }
    }
}

TEST(Mutation, IsOutlivedByTheReaderOfAPFS)
{
    APFSImage sound({ .blocks = 64, .isHashed = false });
    const auto block = sound.store(patternBytes(9000));
    APFSImage::Leaf records;
    const auto add = [&](const APFSImage::Leaf& more) {
        records.insert(records.end(), more.begin(), more.end());
    };
    for (std::uint64_t id = 16; id < 22; ++id)
        add(sound.folder(id, id % 2 == 0 ? 2 : id - 1, "mappe"));
    for (std::uint64_t id = 22; id < 34; ++id)
        add(sound.file({ .id = id, .parent = id - 8, .name = "fil", .size = 9000 }, block));
    add({ APFSImage::attribute(22, "com.apple.fs.symlink", "mål"), sound.entry(2, "link", 23) });
    sound.commit(APFSImage::split(records, 12));
    records.erase(records.end() - 12, records.end());
    sound.commit(APFSImage::split(records, 12));
    sound.freeQueue = { { block + 1, 1 } };
    sound.commit(APFSImage::split(records, 10));
    exerciseDamaged(sound, sound.offsetOf(30), 300, 8);

    // Fields of nodes and superblocks, all of them signed again.
    constexpr std::uint64_t numbers[] = { 0, 1, 2, 3, 7, 15, 16, 20, 31, 40, 63, 64, 0xFF, 0xFFF,
        0x1000, 0x7FFF, 0xFFFF, 0xFFFFFFFF, std::uint64_t { 1 } << 40, std::uint64_t { 1 } << 52,
        std::uint64_t { 1 } << 63, ~std::uint64_t { 0 } };
    std::mt19937 random(9);
    for (int round = 0; round < 1000; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto image = sound;
        for (auto count = 1 + random() % 8; count > 0; --count) {
            const std::uint64_t inBlock = random() % 3 == 0
                ? APFSImage::blockSize - 1 - random() % 400
                : 8 + random() % 400;
            const std::uint64_t at = image.offsetOf(random() % 64) + inBlock / 2 * 2;
            const auto width = std::size_t { 1 } << random() % 4;
            const std::uint64_t value = numbers[random() % std::size(numbers)];
            for (std::size_t i = 0; i < width && at + i < image.bytes().size(); ++i)
                image.bytes()[at + i] = static_cast<std::uint8_t>(value >> 8 * i);
        }
        image.renewChecksums();
        ASSERT_NO_FATAL_FAILURE(exercise(image.bytes()));
        if (round % deepShare == 0) {
            ASSERT_NO_FATAL_FAILURE(exerciseDeep(image.bytes()));
        }
    }
}

TEST(Mutation, IsOutlivedByPartitionTables)
{
    PartitionImage disk(256_KiB);
    disk.gpt({ { basicDataGUID, 64, 200 }, { basicDataGUID, 210, 400 } });
    disk.mbr({ { 0x01, 64, 120 }, { 0x05, 40, 20 } });
    for (const std::uint64_t lba : { 40u, 44u })
        disk.ebr(lba, { { 0x0B, 24, 100 }, { 0x05, 4, 4 } });
    disk.volume(64, FileSystemType::fat12);
    std::mt19937 random(99);
    for (int round = 0; round < 1500; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto bytes = disk.source()->read(0, 256_KiB, ReadMode::thorough);
        // Half of them are an MBR alone: without its header there is no GPT.
        if (round % 2 == 0)
            bytes[512] = 0;
        damage(bytes, 48 * 512, random);
        ASSERT_NO_FATAL_FAILURE(exercise(bytes));
    }
}

TEST(Mutation, IsOutlivedByTheDecompressor)
{
    std::mt19937 random(5);
    for (int round = 0; round < 3000; ++round) {
        auto input = patternBytes(1 + random() % 300, static_cast<std::uint32_t>(round));
        input[0] = static_cast<std::uint8_t>(random());
        if (input.size() > 1)
            input[1] = static_cast<std::uint8_t>(0xB0 | (random() & 0x0F));
        ASSERT_EQ(FileReader::lznt1Decompress(input, 4096).size(), 4096u);
    }
}
