// Damaged copies of a small NTFS volume by the thousand: none may crash, hang, or make the reader ask for absurd
// memory. The seeds are fixed, so that what fails once fails again.

#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FileReader.h"
#include "VintrelCore/NTFS.h"
#include "VintrelCore/Scanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

constexpr auto root = NTFSImage::root;
constexpr std::uint64_t usedRecords = 44;

/// A volume with something of everything: folders in each other, content of every kind, deleted files, extension
/// records.
NTFSImage smallVolume()
{
    NTFSImage image({ .clusterSize = 512, .clusters = 400, .records = 48, .mft = { { 16, 33 }, { 60, 63 } } });
    image.putFolder(20, root, u"mappe");
    image.putFolder(21, { 20, 1 }, u"inde i mappen", false, 2);
    image.putFile(22, { 21, 1 }, u"slettet.txt", patternBytes(1700), false);
    image.putFile(23, { 20, 1 }, u"lille.txt", bytesOf("lille"));
    const auto runs = image.store(patternBytes(6000));
    const std::uint64_t lcn = *runs[0].lcn;
    const auto file = [&](std::uint64_t number, std::u16string_view name, std::vector<Bytes> attributes) {
        attributes.insert(attributes.begin(),
            { NTFSImage::standardInformation(), NTFSImage::fileName(root, u"KORT~1.TXT", 2),
                NTFSImage::fileName({ 20, 1 }, name) });
        image.put(number, { .attributes = std::move(attributes) });
    };
    file(24, u"i stykker",
        { NTFSImage::data(
            { .runs = { { lcn + 6, 3 }, { std::nullopt, 2 }, { lcn, 4 }, { lcn + 5, 1 } }, .size = 5000 }) });
    file(25, u"pakket",
        { NTFSImage::data({ .runs = { { lcn, 4 }, { lcn + 4, 2 }, { std::nullopt, 2 }, { std::nullopt, 4 } },
            .size = 5500,
            .initSize = 5000,
            .flags = 1,
            .compressionUnit = 2 }) });
    const auto list = NTFSImage::listContent({ { 0x10, { 26, 1 } }, { 0x30, { 41, 1 } }, { 0x80, { 26, 1 } },
        { 0x80, { 42, 1 }, 4 }, { 0x80, { 43, 1 }, 8 } });
    const auto listRuns = image.store(list);
    file(26, u"lang liste",
        { NTFSImage::nonResident(0x20, { .runs = listRuns, .size = list.size() }),
            NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 6000 }) });
    file(27, u"kort liste",
        { NTFSImage::attribute(0x20, list), NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 2048 }) });
    image.put(41, { .base = { 26, 1 }, .attributes = { NTFSImage::fileName(root, u"andet navn") } });
    image.put(
        42, { .base = { 26, 1 }, .attributes = { NTFSImage::data({ .runs = { { lcn + 4, 4 } }, .startVCN = 4 }) } });
    image.put(
        43, { .base = { 26, 1 }, .attributes = { NTFSImage::data({ .runs = { { lcn + 8, 4 } }, .startVCN = 8 }) } });
    for (std::uint64_t number = 28; number < 41; ++number)
        image.putFile(
            number, { number % 3 == 0 ? 20u : number - 1, 1 }, u"fil", patternBytes(number * 20), number % 2 == 0);
    return image;
}

/// Values that lengths, offsets, counts and references go wrong with.
std::uint64_t tellingNumber(std::mt19937& random)
{
    constexpr std::uint64_t numbers[] = { 0, 1, 2, 5, 11, 15, 16, 20, 26, 42, 47, 48, 0x7F, 0x80, 0xFF, 0x3FF, 0x400,
        0x7FFF, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFF, std::uint64_t { 1 } << 40, std::uint64_t { 1 } << 62,
        ~std::uint64_t { 0 } / 2, ~std::uint64_t { 0 } };
    return numbers[random() % std::size(numbers)];
}

/// Damages a place in a random record: mostly its headers and attributes, which know of each other by offset.
void damageRecord(NTFSImage& image, std::mt19937& random)
{
    const std::uint64_t number = random() % 4 == 0 ? 0 : random() % usedRecords;
    const auto record = [&](std::uint64_t at) -> std::uint8_t& {
        return image.bytes().at(image.recordOffset(number, std::min<std::uint64_t>(at, 1023)));
    };
    const auto u16 = [&](std::uint64_t at) { return static_cast<std::uint64_t>(record(at) | record(at + 1) << 8); };
    const auto poke = [&](std::uint64_t at, std::uint64_t value, int width) {
        for (int i = 0; i < width; ++i)
            record(at + static_cast<std::uint64_t>(i)) = static_cast<std::uint8_t>(value >> 8 * i);
    };

    std::uint64_t attribute = u16(20);
    for (auto steps = random() % 5; steps > 0 && u16(attribute + 4) >= 16 && attribute < 1000; --steps)
        attribute += u16(attribute + 4);
    constexpr struct {
        std::uint64_t at;
        int width;
    } fields[] = { { 0, 4 }, { 4, 4 }, { 8, 1 }, { 9, 1 }, { 12, 2 }, { 16, 8 }, { 20, 2 }, { 32, 2 }, { 34, 1 },
        { 48, 8 }, { 56, 8 }, { 24, 6 }, { 88, 1 }, { 24, 2 }, { 40, 6 }, { 46, 2 } };
    constexpr struct {
        std::uint64_t at;
        int width;
    } headerFields[]
        = { { 0, 4 }, { 4, 2 }, { 6, 2 }, { 16, 2 }, { 20, 2 }, { 22, 2 }, { 24, 4 }, { 32, 6 }, { 38, 2 } };
    switch (random() % 8) {
    case 0: {
        const auto& [at, width] = headerFields[random() % std::size(headerFields)];
        poke(at, tellingNumber(random), width);
        break;
    }
    case 1:
    case 2:
    case 3: {
        const auto& [at, width] = fields[random() % std::size(fields)];
        poke(attribute + at, tellingNumber(random), width);
        break;
    }
    case 4: // a run list of noise
        for (std::uint64_t i = 0; i < 16; ++i)
            poke(attribute + 64 + i, random() % 3 == 0 ? 0x11 * (1 + random() % 8) : random(), 1);
        break;
    case 5: // one claim after another
        poke(attribute + 64, 0xFFFFFFFFFF05, 6);
        poke(attribute + 48, tellingNumber(random), 8);
        poke(attribute + 56, tellingNumber(random), 8);
        break;
    case 6: { // another record's bytes
        const std::uint64_t other = random() % usedRecords;
        const std::uint64_t from = random() % 1000;
        for (std::uint64_t at = from; at < std::min<std::uint64_t>(from + random() % 512, 1024); ++at)
            record(at) = image.bytes()[image.recordOffset(other, at)];
        break;
    }
    default:
        record(random() % 1024) ^= static_cast<std::uint8_t>(1 << random() % 8);
    }
}

/// Everything that a user can ask of a source.
void exercise(const Bytes& bytes)
{
    const auto source = makeSource(bytes);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_LT(source->bytesRead(), 64 * bytes.size() + 1_MiB) << "reads without end";
    for (const auto& volume : result.volumes) {
        const auto totals = volume->root->totals();
        ASSERT_LE(totals.files + totals.folders, bytes.size() / 512) << "more entries than records";
        for (const auto* file : volume->root->allFiles()) {
            ASSERT_LE(file->size, std::uint64_t { 1 } << 44) << file->path();
            std::uint64_t delivered = 0;
            FileReader::stream(*file, *source, 64_KiB, 256_KiB, [&](const FileReader::Piece& piece) {
                delivered += piece.size();
                return true;
            });
            const auto wanted = std::holds_alternative<NoData>(file->data) ? 0 : file->size;
            ASSERT_EQ(delivered, std::min<std::uint64_t>(wanted, 256_KiB)) << file->path();
        }
    }
}

} // namespace

TEST(Mutation, NTFSRecordsRunListsAndAttributeLists)
{
    const auto sound = smallVolume();
    ASSERT_NO_FATAL_FAILURE(exercise(sound.bytes()));
    std::mt19937 random(54);
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto image = sound;
        for (auto count = 1 + random() % 10; count > 0; --count)
            damageRecord(image, random);
        if (round % 2 == 0) // that the copy of the damaged record is damaged too
            for (std::uint64_t at = 0; at < 1024; ++at)
                image.bytes()[image.offsetOf(image.mirrorLCN()) + at] = image.bytes()[image.recordOffset(0, at)];
        ASSERT_NO_FATAL_FAILURE(exercise(image.bytes()));
    }
}

TEST(Mutation, NTFSBootSectorsListsAndCutImages)
{
    const auto sound = smallVolume();
    std::mt19937 random(55);
    constexpr std::uint64_t fields[] = { 11, 13, 40, 44, 48, 56, 64 };
    for (int round = 0; round < 1800; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto bytes = sound.bytes();
        switch (round % 3) {
        case 0:
            for (int i = 0; i < 2; ++i)
                bytes[fields[random() % std::size(fields)] + random() % 4]
                    = static_cast<std::uint8_t>(random() % 2 == 0 ? random() : tellingNumber(random));
            break;
        case 1:
            bytes.resize(random() % bytes.size());
            break;
        default: // behind the MFT: the bitmap, attribute lists, content
            for (auto count = random() % 200; count > 0; --count)
                bytes[(16 + 33 + 63 + random() % 80) * 512 + random() % 512] = static_cast<std::uint8_t>(random());
        }
        ASSERT_NO_FATAL_FAILURE(exercise(bytes));
    }
}
