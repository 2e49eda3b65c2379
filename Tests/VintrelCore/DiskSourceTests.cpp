#include "Tests/Support/TestSource.h"
#include "VintrelCore/DiskSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

using enum ReadMode;
using Sectors = std::vector<std::uint64_t>;

constexpr auto last64 = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t blockSize = 64_KiB;

/// A source and the bytes that it ought to give.
struct Disk {
    explicit Disk(std::size_t size, std::uint32_t sectorSize = 512)
        : bytes(patternBytes(size))
        , source(makeSource(bytes, sectorSize))
    {
    }

    /// The bytes of a range, with zeros past the end and in the ranges that are lost.
    Bytes expected(std::uint64_t offset, std::size_t count, const std::vector<ByteRange>& lost = {}) const
    {
        Bytes result(count);
        if (offset < bytes.size())
            std::copy_n(
                bytes.data() + offset, std::min(count, bytes.size() - static_cast<std::size_t>(offset)), result.data());
        for (const auto& range : lost) {
            const auto start = std::max(range.start, offset);
            const auto end = std::min(range.end, offset + count);
            if (start < end)
                std::fill_n(result.data() + (start - offset), end - start, std::uint8_t { 0 });
        }
        return result;
    }

    void expectRead(std::uint64_t offset, std::size_t count, ReadMode mode, const std::vector<ByteRange>& lost = {},
        std::uint64_t badBytes = 0)
    {
        SCOPED_TRACE(std::to_string(count) + " bytes at " + std::to_string(offset));
        const auto report = source->readReporting(offset, static_cast<std::int64_t>(count), mode);
        EXPECT_EQ(report.badBytes, badBytes);
        EXPECT_TRUE(report.data == expected(offset, count, lost));
    }

    /// Reads into the middle of a buffer; around it nothing is written.
    void expectReadInto(std::uint64_t offset, std::size_t count, ReadMode mode, const std::vector<ByteRange>& lost = {},
        std::uint64_t badBytes = 0)
    {
        SCOPED_TRACE(std::to_string(count) + " bytes into a buffer from " + std::to_string(offset));
        constexpr std::size_t guard = 4096;
        Bytes buffer(count + 2 * guard, 0xA5);
        EXPECT_EQ(source->readInto(offset, std::span(buffer).subspan(guard, count), mode), badBytes);
        Bytes whole(guard, 0xA5);
        std::ranges::copy(expected(offset, count, lost), std::back_inserter(whole));
        whole.insert(whole.end(), guard, 0xA5);
        EXPECT_TRUE(buffer == whole);
    }

    Bytes bytes;
    std::unique_ptr<DiskSource> source;
};

} // namespace

TEST(DiskSource, ReadsAnyRange)
{
    // The end lies in the middle of a sector, a block and a chunk.
    for (const std::uint32_t sectorSize : { 512u, 4096u }) {
        Disk disk(700'001, sectorSize);
        const std::pair<std::uint64_t, std::size_t> ranges[] = { { 0, 1 }, { 511, 2 }, { 131'071, 2 }, { 0, 262'144 },
            { 131'000, 262'144 }, { 0, 262'145 }, { 1, 262'145 }, { 4095, 600'000 }, { 700'000, 1 }, { 700'000, 2 },
            { 699'000, 5'000 }, { 500'000, 300'000 }, { 3, 900'000 }, { 700'001, 10 }, { 700'001, 300'000 },
            { last64, 10 }, { last64 - 3, 300'000 }, { std::uint64_t { 1 } << 63, 10 } };
        for (const auto& [offset, count] : ranges) {
            disk.expectRead(offset, count, thorough);
            disk.expectReadInto(offset, count, fast);
        }
        for (const std::int64_t count : { std::int64_t { 0 }, std::int64_t { -1 }, INT64_MIN })
            EXPECT_TRUE(disk.source->read(0, count, thorough).empty());
        EXPECT_EQ(disk.source->readErrorCount(), 0);
        EXPECT_EQ(disk.source->sectorCount(), 700'001 / sectorSize);
    }
    EXPECT_EQ(Disk(512, 1).source->sectorSize(), 512u);
}

TEST(DiskSource, ThoroughReadsLoseTheBadSectorAlone)
{
    Disk disk(1_MiB);
    const ByteRange bad { 10'240, 10'752 };
    disk.source->addSimulatedBadRange(bad);
    auto& source = *disk.source;

    disk.expectRead(8192, 4096, thorough, { bad }, 512);
    EXPECT_EQ(source.badSectors(), Sectors { 20 });
    EXPECT_EQ(source.readErrorCount(), 2); // the read, and the sector

    const auto bytesRead = source.bytesRead();
    disk.expectRead(8192, 4096, thorough, { bad }, 512);
    EXPECT_EQ(source.readErrorCount(), 2);
    EXPECT_EQ(source.bytesRead(), bytesRead);
    EXPECT_EQ(source.readReporting(10'300, 100, thorough).badBytes, 100u); // part of the bad sector
    EXPECT_EQ(source.readReporting(0, 10'240, thorough).badBytes, 0u);     // the same chunk without it
    EXPECT_EQ(source.readErrorCount(), 2);
}

TEST(DiskSource, FastReadsLoseWholeBlocksUntilAThoroughOne)
{
    const ByteRange bad { 3 * blockSize + 1024, 3 * blockSize + 1025 }; // one byte spoils its sector
    const ByteRange badSector { 3 * blockSize + 1024, 3 * blockSize + 1536 };
    const ByteRange badBlock { 3 * blockSize, 4 * blockSize };
    // Through the cache and past it, from starting points on and off the blocks' bounds.
    const std::pair<std::uint64_t, std::size_t> ranges[]
        = { { 2 * blockSize, 2 * blockSize }, { 3 * blockSize - 700, 1400 }, { 3 * blockSize + 5000, 100 },
              { 0, 1_MiB }, { 512 * 5, 600'000 }, { 100'001, 500'000 } };
    for (const auto& [offset, count] : ranges) {
        SCOPED_TRACE(offset);
        Disk disk(1_MiB);
        disk.source->addSimulatedBadRange(bad);
        const auto lostOf = [&, offset = offset, count = count](const ByteRange& range) {
            const auto start = std::max(range.start, offset);
            const auto end = std::min<std::uint64_t>(range.end, offset + count);
            return end > start ? end - start : 0;
        };
        disk.expectRead(offset, count, fast, { badBlock }, lostOf(badBlock));
        disk.expectRead(offset, count, fast, { badBlock }, lostOf(badBlock));
        EXPECT_TRUE(disk.source->badSectors().empty());
        if (lostOf(badSector) > 0) // a direct read that does not touch the sector has nothing to give up
            disk.expectReadInto(offset, count, fast, { badBlock }, lostOf(badBlock));
        disk.expectRead(offset, count, thorough, { badSector }, lostOf(badSector));
        disk.expectReadInto(offset, count, thorough, { badSector }, lostOf(badSector));
        EXPECT_EQ(disk.source->badSectors(), Sectors { 386 });
    }
}

TEST(DiskSource, FastReadsAskASuspectBlockNoMore)
{
    Disk disk(1_MiB);
    disk.source->addSimulatedBadRange({ 0, 512 });
    disk.expectReadInto(0, 2 * blockSize, fast, { { 0, blockSize } }, blockSize);
    const auto bytesRead = disk.source->bytesRead();
    disk.expectReadInto(0, 2 * blockSize, fast, { { 0, blockSize } }, blockSize);
    EXPECT_EQ(disk.source->bytesRead(), bytesRead + blockSize); // the sound block alone
}

TEST(DiskSource, LargeUnalignedReadsAroundBadSectors)
{
    for (const std::uint32_t sectorSize : { 512u, 4096u }) {
        Disk disk(900'000, sectorSize); // ends within a sector
        const Sectors sectors { 0, 400'000 / sectorSize, 899'999 / sectorSize };
        std::vector<ByteRange> lost;
        for (const auto sector : sectors) {
            lost.push_back({ sector * sectorSize, (sector + 1) * sectorSize });
            disk.source->addSimulatedBadRange(lost.back());
        }
        // Unaligned at both ends, with the bad sectors wholly inside.
        disk.expectRead(100'001, 500'000, thorough, lost, sectorSize);
        EXPECT_TRUE(disk.source->read(0, 900'000, thorough) == disk.expected(0, 900'000, lost));
        EXPECT_EQ(disk.source->badSectors(), sectors);
        // Into a buffer that begins and ends within the bad sectors; only what was asked for counts.
        disk.expectReadInto(100, 899'850, thorough, lost, sectorSize - 100 + sectorSize + 899'950 - lost[2].start);
        EXPECT_EQ(disk.source->readReporting(899'998, 10, thorough).badBytes, 2u);
    }
}

TEST(DiskSource, AnErrorWithinASectorLosesThatSectorOnly)
{
    // The system's own errors instead of simulated ones: a process's memory read as a file breaks off, with fewer
    // bytes than asked for and then EIO, where a mapping goes on past the end of its file.
    FileDescriptor memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    if (!memory)
        GTEST_SKIP() << "no /proc/self/mem";
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const auto bytes = patternBytes(7 * page);
    const TemporaryFolder folder;
    writeFile(folder / "file", bytes);
    const FileDescriptor file(::open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
    void* const mapping = ::mmap(nullptr, 16 * page, PROT_READ, MAP_PRIVATE, file.get(), 0);
    ASSERT_NE(mapping, MAP_FAILED);
    const auto mapped = reinterpret_cast<std::uint64_t>(mapping);
    // Sectors of two pages from an even page on, so that the seventh page is half of a bad sector.
    const bool isOdd = mapped / page % 2 != 0;
    const auto start = mapped + (isOdd ? page : 0);
    const std::size_t readable = isOdd ? 6 : 7;
    DiskSource source({ .descriptor = std::move(memory),
        .path = "memory",
        .displayName = "memory",
        .size = start + 8 * page,
        .sectorSize = static_cast<std::uint32_t>(2 * page),
        .isDevice = false,
        .bsdName = std::nullopt,
        .cleanup = nullptr });

    Bytes buffer(8 * page, 0xA5);
    const std::size_t whole = readable / 2 * 2;
    EXPECT_FALSE(source.tryRead(start, buffer));
    EXPECT_EQ(source.readInto(start, buffer, thorough), (8 - whole) * page);
    Bytes expected(bytes.begin() + static_cast<std::ptrdiff_t>(isOdd ? page : 0), bytes.end());
    expected.resize(whole * page);
    expected.resize(8 * page);
    EXPECT_TRUE(buffer == expected);
    Sectors sectors;
    for (auto sector = (start + whole * page) / (2 * page); sector < (start + 8 * page) / (2 * page); ++sector)
        sectors.push_back(sector);
    EXPECT_EQ(source.badSectors(), sectors);
    EXPECT_EQ(source.readErrorCount(), 2 + static_cast<std::int64_t>(sectors.size()));
    ::munmap(mapping, 16 * page);
}

TEST(DiskSource, TryReadIsExact)
{
    Disk disk(10'000);
    disk.source->addSimulatedBadRange({ 5000, 5001 });
    Bytes buffer(4000, 0xA5);
    EXPECT_TRUE(disk.source->tryRead(8000, buffer));
    EXPECT_TRUE(buffer == disk.expected(8000, 4000));
    EXPECT_TRUE(disk.source->tryRead(last64 - 10, buffer));
    EXPECT_TRUE(buffer == Bytes(4000));
    EXPECT_FALSE(disk.source->tryRead(2000, buffer));
    EXPECT_EQ(disk.source->readErrorCount(), 1);
    EXPECT_TRUE(disk.source->badSectors().empty());
}

TEST(DiskSource, KeepsTheChunksThatWereUsedLast)
{
    constexpr auto chunk = static_cast<std::uint64_t>(DiskSource::chunkSize);
    constexpr auto kept = DiskSource::maxCacheChunks;
    const auto file = std::make_unique<TemporaryFolder>();
    writeFile(*file / "sparse", {});
    std::filesystem::resize_file(*file / "sparse", 170 * chunk);
    DiskSource source({ .descriptor = FileDescriptor(::open((*file / "sparse").c_str(), O_RDONLY | O_CLOEXEC)),
        .path = "sparse",
        .displayName = "sparse",
        .size = 170 * chunk,
        .sectorSize = 512,
        .isDevice = false,
        .bsdName = std::nullopt,
        .cleanup = nullptr });
    const auto chunksRead = [&] { return source.bytesRead() / chunk; };

    for (std::uint64_t i = 0; i < kept; ++i)
        source.read(i * chunk, 16, thorough);
    EXPECT_EQ(chunksRead(), kept);
    source.read(0, 16, thorough); // kept, and now the one used last
    EXPECT_EQ(chunksRead(), kept);
    source.read(kept * chunk, 16, thorough); // displaces the second
    source.read(0, 16, thorough);
    EXPECT_EQ(chunksRead(), kept + 1);
    source.read(chunk, 16, thorough);
    EXPECT_EQ(chunksRead(), kept + 2);
    source.read(2 * chunk, 300'000, thorough); // a large read is neither kept nor displaces anything
    const auto bytesRead = source.bytesRead();
    source.read(0, 16, thorough);
    source.read(3 * chunk, 16, thorough);
    EXPECT_EQ(source.bytesRead(), bytesRead);
}

TEST(DiskSource, SimulatedRangesAreMergedAndCut)
{
    const struct {
        const char* what;
        std::vector<ByteRange> added, kept;
    } cases[] = {
        { "apart, in any order", { { 50, 60 }, { 10, 20 }, { 30, 40 } }, { { 10, 20 }, { 30, 40 }, { 50, 60 } } },
        { "overlapping", { { 10, 20 }, { 15, 30 } }, { { 10, 30 } } },
        { "touching", { { 10, 20 }, { 30, 40 }, { 20, 30 } }, { { 10, 40 } } },
        { "around all", { { 10, 20 }, { 30, 40 }, { 0, 90 } }, { { 0, 90 } } },
        { "within one", { { 0, 90 }, { 30, 40 } }, { { 0, 90 } } },
        { "from one into the next", { { 10, 20 }, { 30, 40 }, { 50, 60 }, { 15, 35 } }, { { 10, 40 }, { 50, 60 } } },
        { "past the end", { { 900, last64 }, { 1000, 2000 }, { last64 - 1, last64 } }, { { 900, 1000 } } },
        { "empty or backwards", { { 5, 5 }, { 9, 3 }, { 0, 0 } }, {} },
    };
    for (const auto& [what, added, kept] : cases) {
        const auto source = makeSource(Bytes(1000));
        for (const auto& range : added)
            source->addSimulatedBadRange(range);
        EXPECT_EQ(source->simulatedBadRanges(), kept) << what;
    }
    // Half-open: the neighbouring sectors are sound.
    Disk disk(4096);
    disk.source->addSimulatedBadRange({ 1024, 1536 });
    Bytes sector(512);
    EXPECT_TRUE(disk.source->tryRead(512, sector));
    EXPECT_FALSE(disk.source->tryRead(1024, sector));
    EXPECT_TRUE(disk.source->tryRead(1536, sector));
}

TEST(DiskSource, AFileThatBecomesShorterReadsAsZeros)
{
    const TemporaryFolder folder;
    const auto bytes = patternBytes(400'000);
    for (const std::int64_t count : { 4096, 300'000 }) {
        writeFile(folder / "image", bytes);
        DiskSource source({ .descriptor = FileDescriptor(::open((folder / "image").c_str(), O_RDONLY | O_CLOEXEC)),
            .path = "image",
            .displayName = "image",
            .size = bytes.size(),
            .sectorSize = 512,
            .isDevice = false,
            .bsdName = std::nullopt,
            .cleanup = nullptr });
        std::filesystem::resize_file(folder / "image", 1000);
        auto expected = bytes;
        expected.resize(1000);
        expected.resize(static_cast<std::size_t>(count));
        EXPECT_TRUE(source.read(0, count, thorough) == expected);
        EXPECT_EQ(source.readReporting(200'000, 100, thorough).badBytes, 0u);
        EXPECT_EQ(source.readErrorCount(), 0);
    }
}

TEST(DiskSource, AClosedSourceGivesNothing)
{
    int cleanups = 0;
    int descriptor = -1;
    {
        FileDescriptor file(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
        descriptor = file.get();
        DiskSource source({ .descriptor = std::move(file),
            .path = "zero",
            .displayName = "zero",
            .size = 1_MiB,
            .sectorSize = 512,
            .isDevice = false,
            .bsdName = std::nullopt,
            .cleanup = [&] { ++cleanups; } });
        source.markBad(7);
        source.read(0, 10, thorough);
        source.close();
        source.close();
        EXPECT_EQ(cleanups, 1);
        EXPECT_TRUE(source.isClosed());
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);

        Bytes buffer(300'000, 0xA5);
        EXPECT_FALSE(source.tryRead(0, buffer));
        EXPECT_EQ(source.readInto(0, buffer, thorough), 300'000u);
        EXPECT_TRUE(buffer == Bytes(300'000));
        EXPECT_EQ(source.readReporting(0, 10, thorough).badBytes, 10u);
        EXPECT_EQ(source.readReporting(1_MiB - 10, 300'000, thorough).badBytes, 10u);
        EXPECT_EQ(source.badSectors(), Sectors { 7 }); // what was learned stays
        EXPECT_TRUE(source.isKnownBad(7));
        EXPECT_FALSE(source.isKnownBad(8));
    }
    EXPECT_EQ(cleanups, 1);
}

TEST(DiskSource, SeveralThreadsRead)
{
    Disk disk(2_MiB);
    disk.source->addSimulatedBadRange({ 1_MiB, 1_MiB + 512 });
    const std::vector<ByteRange> lost { { 1_MiB, 1_MiB + 512 } };
    const auto reader = [&](std::uint64_t step, bool& isRight) {
        for (std::uint64_t i = 0; i < 200 && isRight; ++i) {
            const auto offset = i * step * 1009 % (2_MiB);
            const std::size_t count = i % 16 == 0 ? 300'000 : 700;
            isRight = disk.source->read(offset, static_cast<std::int64_t>(count), thorough)
                == disk.expected(offset, count, lost);
        }
    };
    bool firstIsRight = true, secondIsRight = true;
    std::thread first(reader, 7, std::ref(firstIsRight));
    std::thread second(reader, 11, std::ref(secondIsRight));
    first.join();
    second.join();
    EXPECT_TRUE(firstIsRight && secondIsRight);
    EXPECT_EQ(disk.source->badSectorCount(), 1u);
}
