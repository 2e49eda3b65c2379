// Damaged copies of small images by the thousand: none may crash, hang, or make the reader ask for
// absurd memory. The seeds are fixed, so that what fails once fails again. Tests/Fuzz goes further.

#include "Tests/Images/SmallVolumes.h"
#include "Tests/Support/Exercise.h"
#include "VintrelCore/Recovery/LZNT1.h"

#include <gtest/gtest.h>

#include <random>

using namespace SmallVolumes;

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
    ASSERT_EQ(Exercise::quick(*source), "");
    ASSERT_EQ(Exercise::lost(*source, bytes), "");
}

/// What a deep scan makes of it. What the tables name is not known to it, so that it has to find
/// everything itself.
void exerciseDeep(const Bytes& bytes) { ASSERT_EQ(Exercise::sweep(*makeSource(bytes)), ""); }

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
            = type == FileSystemType::fat16 ? 100 : 700; // a FAT16 volume has 2 MiB at the least
        exerciseDamaged(sound, sound.offsetOf(40), rounds, static_cast<unsigned>(type) + 1);
    }
}

TEST(Mutation, IsOutlivedByTheReaderOfExFAT)
{
    const auto sound = smallExFATCard();
    exerciseDamaged(sound, sound.offsetOf(50), 900, 77);
}

TEST(Mutation, IsOutlivedByTheReaderOfExt)
{
    const auto sound = smallExtVolume();
    exerciseDamaged(sound, ExtImage::offsetOf(48), 900, 91);
}

TEST(Mutation, IsOutlivedByTheReaderOfHFSPlus)
{
    const auto sound = smallHFSPlusVolume();
    exerciseDamaged(sound, HFSPlusImage::nodeOffset(6), 1500, 31);
}

TEST(Mutation, IsOutlivedByTheReaderOfNTFS)
{
    const auto sound = smallNTFSVolume();
    exerciseDamaged(sound, sound.offsetOf(16), 250, 55); // the boot sector
    std::mt19937 random(54);
    for (int round = 0; round < 900; ++round) {
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
    const auto sound = smallAPFSContainer();
    exerciseDamaged(sound, sound.offsetOf(30), 150, 8);

    // Fields of nodes and superblocks, all of them signed again.
    constexpr std::uint64_t numbers[] = { 0, 1, 2, 3, 7, 15, 16, 20, 31, 40, 63, 64, 0xFF, 0xFFF,
        0x1000, 0x7FFF, 0xFFFF, 0xFFFFFFFF, std::uint64_t { 1 } << 40, std::uint64_t { 1 } << 52,
        std::uint64_t { 1 } << 63, ~std::uint64_t { 0 } };
    std::mt19937 random(9);
    for (int round = 0; round < 500; ++round) {
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
    const auto disk = partitionedDisk();
    std::mt19937 random(99);
    for (int round = 0; round < 700; ++round) {
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
