#include "Tests/Support/TestSource.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/FileDescriptor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using enum ReadMode;
using Ranges = std::vector<ByteRange>;
using Sectors = std::vector<std::uint64_t>;

constexpr auto last64 = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t blockSize = 64_KiB;

Sectors badSectorsOf(const DiskSource& source)
{
    Sectors sectors;
    const auto bad = source.badSectors();
    for (const auto& [first, end] : bad.ranges())
        for (auto sector = first; sector < end; ++sector)
            sectors.push_back(sector);
    return sectors;
}

/// A source and the bytes that it ought to give.
struct Disk {
    explicit Disk(std::size_t size, std::uint32_t sectorSize = 512)
        : bytes(patternBytes(size))
        , source(makeSource(bytes, sectorSize))
    {
    }

    /// What a read ought to give: zeros past the end, and zeros that count as bad in the ranges
    /// that are lost.
    ReadReport expected(std::uint64_t offset, std::size_t count, const Ranges& lost) const
    {
        ReadReport report { .data = Bytes(count), .badBytes = 0 };
        const auto there = ByteView(bytes).sub(
            static_cast<std::int64_t>(offset), static_cast<std::int64_t>(count));
        std::ranges::copy(there.span(), report.data.begin());
        for (const auto& range : lost)
            for (auto at = std::max(range.start, offset);
                 at < std::min(range.end, offset + there.size()); ++at) {
                report.data[at - offset] = 0;
                ++report.badBytes;
            }
        return report;
    }

    /// Reads by way of the readers' own buffers and their cache, and past it into a buffer of the
    /// caller's.
    void expectRead(
        std::uint64_t offset, std::size_t count, ReadMode mode, const Ranges& lost = {}) const
    {
        SCOPED_TRACE(std::to_string(count) + " bytes at " + std::to_string(offset));
        const auto report = expected(offset, count, lost);
        const auto [data, badBytes]
            = source->readReporting(offset, static_cast<std::int64_t>(count), mode);
        EXPECT_EQ(badBytes, report.badBytes);
        EXPECT_TRUE(data == report.data);
        Bytes buffer(count, 0xA5);
        EXPECT_EQ(source->readInto(offset, buffer, mode), report.badBytes);
        EXPECT_TRUE(buffer == report.data);
    }

    Bytes bytes;
    std::unique_ptr<DiskSource> source;
};

} // namespace

TEST(DiskSource, ReadsAnyRange)
{
    // The end lies in the middle of a sector, a block and a chunk.
    for (const std::uint32_t sectorSize : { 512u, 4096u }) {
        const Disk disk(700'001, sectorSize);
        const std::pair<std::uint64_t, std::size_t> ranges[]
            = { { 511, 2 }, { 131'071, 2 }, { 131'000, 262'144 }, { 1, 262'145 }, { 700'000, 2 },
                  { 3, 900'000 }, { 700'001, 10 }, { last64 - 3, 300'000 } };
        for (const auto& [offset, count] : ranges)
            disk.expectRead(offset, count, thorough);
        EXPECT_TRUE(disk.source->read(0, -1, thorough).empty());
        EXPECT_EQ(disk.source->readErrorCount(), 0);
    }
}

TEST(DiskSource, ThoroughReadsLoseTheBadSectorsAlone)
{
    for (const std::uint32_t sectorSize : { 512u, 4096u }) {
        const Disk disk(900'000, sectorSize); // ends within a sector
        const Sectors sectors { 0, 400'000 / sectorSize, 899'999 / sectorSize };
        Ranges lost;
        for (const auto sector : sectors) {
            lost.push_back({ sector * sectorSize, (sector + 1) * sectorSize });
            disk.source->addSimulatedBadRange(lost.back());
        }
        const auto middle = lost[1].start;
        disk.source->read(middle - 8192, 20'000, thorough);
        EXPECT_EQ(badSectorsOf(*disk.source), Sectors { sectors[1] });
        EXPECT_EQ(disk.source->readErrorCount(), 2); // the read, and the sector

        // The cache asks for nothing again; only what is wanted of a sector counts.
        const auto bytesRead = disk.source->bytesRead();
        EXPECT_EQ(disk.source->readReporting(middle - 8192, 20'000, thorough).badBytes, sectorSize);
        EXPECT_EQ(disk.source->readReporting(middle + 100, 100, thorough).badBytes, 100u);
        EXPECT_EQ(disk.source->readReporting(middle - 512, 512, thorough).badBytes, 0u);
        EXPECT_EQ(disk.source->bytesRead(), bytesRead);

        disk.expectRead(middle - 8192, 20'000, thorough, lost);
        disk.expectRead(100'001, 500'000, thorough, lost); // unaligned at both ends
        EXPECT_TRUE(
            disk.source->read(0, 900'000, thorough) == disk.expected(0, 900'000, lost).data);
        EXPECT_EQ(disk.source->readReporting(899'998, 10, thorough).badBytes, 2u);
        EXPECT_EQ(badSectorsOf(*disk.source), sectors);
    }
}

TEST(DiskSource, FastReadsLoseWholeBlocksUntilAThoroughOne)
{
    const ByteRange badSector { 3 * blockSize + 1024, 3 * blockSize + 1536 };
    const Ranges badBlock { { 3 * blockSize, 4 * blockSize } };
    // Through the cache and past it, from starting points on and off the blocks' bounds.
    const std::pair<std::uint64_t, std::size_t> ranges[] = { { 2 * blockSize, 2 * blockSize },
        { 3 * blockSize - 700, 2400 }, { 0, 1_MiB }, { 100'001, 500'000 } };
    for (const auto& [offset, count] : ranges) {
        const Disk disk(1_MiB);
        disk.source->addSimulatedBadRange(badSector);
        disk.expectRead(offset, count, fast, badBlock);
        EXPECT_TRUE(badSectorsOf(*disk.source).empty());
        disk.expectRead(offset, count, thorough, { badSector });
        EXPECT_EQ(badSectorsOf(*disk.source), Sectors { 386 });
    }
}

TEST(DiskSource, FastReadsDoNotAskASuspectBlockAgain)
{
    const Disk disk(1_MiB);
    disk.source->addSimulatedBadRange({ 0, 512 });
    disk.source->addSimulatedBadRange({ blockSize, blockSize + 512 });
    Bytes buffer(3 * blockSize - 1024);
    EXPECT_EQ(disk.source->readInto(0, std::span(buffer).first(blockSize), fast), blockSize);
    // Of the first block only what is readable is wanted now, and given up all the same.
    const auto bytesRead = disk.source->bytesRead();
    EXPECT_EQ(disk.source->readInto(1024, buffer, fast), 2 * blockSize - 1024);
    EXPECT_EQ(disk.source->bytesRead(), bytesRead + blockSize);
}

TEST(DiskSource, DoesNotAskAgainForWhatItKnowsToFail)
{
    // Small reads beside one bad sector, through the cache and past it, and one large read.
    for (const auto& [mode, errors] : { std::pair(fast, 1), { thorough, 2 } }) {
        const Disk disk(1_MiB);
        const ByteRange badSector { 3 * blockSize + 1024, 3 * blockSize + 1536 };
        disk.source->addSimulatedBadRange(badSector);
        const Ranges lost { mode == fast ? ByteRange { 3 * blockSize, 4 * blockSize } : badSector };
        for (std::uint64_t number = 0; number < 20; ++number)
            disk.expectRead(2 * blockSize + number * 4'096, 20'000, mode, lost);
        disk.expectRead(100, 700'000, mode, lost);
        EXPECT_EQ(disk.source->readErrorCount(), errors);
    }
}

TEST(DiskSource, AnErrorWithinASectorLosesThatSectorOnly)
{
    // The system's own errors instead of simulated ones: a process's memory read as a file breaks
    // off, with fewer bytes than asked for and then EIO, where a mapping goes on past the end of
    // its file.
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const TemporaryFolder folder;
    const auto bytes = patternBytes(8 * page);
    writeFile(folder / "file", bytes);
    const FileDescriptor file(::open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
    void* const mapping = ::mmap(nullptr, 16 * page, PROT_READ, MAP_PRIVATE, file.get(), 0);
    ASSERT_NE(mapping, MAP_FAILED);
    // Sectors of two pages from an even page on; the file ends within the fourth of them.
    const auto mapped = reinterpret_cast<std::uint64_t>(mapping);
    const auto skipped = mapped % (2 * page);
    std::filesystem::resize_file(folder / "file", skipped + 7 * page);
    DiskSource::Opened memory;
    memory.descriptor = FileDescriptor(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    memory.size = mapped + 16 * page;
    memory.sectorSize = static_cast<std::uint32_t>(2 * page);
    if (!memory.descriptor)
        GTEST_SKIP() << "no /proc/self/mem";
    DiskSource source(std::move(memory));

    Bytes buffer(10 * page, 0xA5);
    EXPECT_EQ(source.readInto(mapped + skipped, buffer, thorough), 4 * page);
    ::munmap(mapping, 16 * page);
    Bytes expected(bytes.data() + skipped, bytes.data() + skipped + 6 * page);
    expected.resize(10 * page);
    EXPECT_TRUE(buffer == expected);
    EXPECT_EQ(source.badSectorCount(), 2u);
}

TEST(DiskSource, SimulatedRangesAreMergedAndCut)
{
    const auto source = makeSource(Bytes(4096));
    for (const auto& range : Ranges { { 50, 60 }, { 10, 20 }, { 30, 40 }, { 15, 35 },
             { 1024, 1536 }, { 4000, last64 }, { 5, 5 }, { 9, 3 } })
        source->addSimulatedBadRange(range);
    EXPECT_EQ(source->simulatedBadRanges(),
        (Ranges { { 10, 40 }, { 50, 60 }, { 1024, 1536 }, { 4000, 4096 } }));
    // Half-open: the neighbouring sectors are sound.
    Bytes sector(512);
    EXPECT_TRUE(source->tryRead(512, sector));
    EXPECT_TRUE(source->tryRead(1536, sector));
    EXPECT_FALSE(source->tryRead(1024, sector));
}

TEST(DiskSource, KeepsTheChunksThatWereUsedLast)
{
    constexpr auto chunk = static_cast<std::uint64_t>(DiskSource::chunkSize);
    constexpr auto kept = DiskSource::maxCacheChunks;
    const auto source = makeSource(Bytes((kept + 4) * chunk));
    const auto chunksReadAfter = [&](std::uint64_t index, std::int64_t count = 16) {
        source->read(index * chunk, count, thorough);
        return source->bytesRead() / chunk;
    };
    for (std::uint64_t i = 0; i < kept; ++i)
        EXPECT_EQ(chunksReadAfter(i), i + 1);
    EXPECT_EQ(chunksReadAfter(0), kept);        // kept, and now the one used last
    EXPECT_EQ(chunksReadAfter(kept), kept + 1); // displaces the second
    EXPECT_EQ(chunksReadAfter(0), kept + 1);
    EXPECT_EQ(
        chunksReadAfter(4, 3 * DiskSource::chunkSize), kept + 4); // a large read displaces nothing
    EXPECT_EQ(chunksReadAfter(2), kept + 4);
    EXPECT_EQ(chunksReadAfter(1), kept + 5);
}

TEST(DiskSource, AClosedSourceGivesNothing)
{
    const Disk disk(1_MiB);
    auto& source = *disk.source;
    source.markBad(7);
    source.read(0, 10, thorough);
    source.close();
    source.close();
    Bytes buffer(300'000, 0xA5);
    EXPECT_FALSE(source.tryRead(0, buffer));
    EXPECT_EQ(source.readInto(0, buffer, thorough), 300'000u);
    EXPECT_TRUE(buffer == Bytes(300'000));
    EXPECT_EQ(source.readReporting(0, 10, thorough).badBytes, 10u);
    EXPECT_EQ(badSectorsOf(source), Sectors { 7 }); // what was learned stays
}
