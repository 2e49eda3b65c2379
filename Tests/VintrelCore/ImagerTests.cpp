#include "Tests/Support/ChildProgram.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/DiskSource.h"
#include "VintrelCore/Imager.h"
#include "VintrelCore/SourceOpener.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

using enum RangeMap::Status;
using Block = RangeMap::Block;
using Blocks = std::vector<Block>;

namespace {

constexpr std::uint64_t sectorSize = 512;

/// The whole sectors that a range touches.
ByteRange sectorsOf(ByteRange range, std::uint64_t size)
{
    return { range.start / sectorSize * sectorSize,
        std::min((range.end + sectorSize - 1) / sectorSize * sectorSize, size) };
}

std::string faultsOf(const std::vector<ByteRange>& ranges)
{
    std::string faults;
    for (const auto& range : ranges)
        faults += "eio:" + std::to_string(range.start) + "-" + std::to_string(range.end) + ",";
    return faults;
}

class Imaging : public ::testing::Test {
protected:
    ImagingStats run(DiskSource& source, ImagingOptions options = {})
    {
        DiskImager imager(source, image, options);
        imager.run([&](const ImagingStats& stats) { finalUpdates += stats.finished ? 1 : 0; });
        blocks = imager.map().snapshot();
        return imager.currentStats();
    }

    std::uint64_t total(RangeMap::Status status) const
    {
        std::uint64_t total = 0;
        for (const auto& block : blocks)
            total += block.status == status ? block.size : 0;
        return total;
    }

    /// That every byte which a new run would take for finished is in the image. Returns how many there are.
    std::uint64_t verifiedBytes(const Bytes& disk) const
    {
        const auto source = makeSource(disk);
        const DiskImager imager(*source, image);
        const auto copied = readFile(image);
        for (const auto& block : imager.map().snapshot())
            if (block.status == finished) {
                EXPECT_TRUE(block.end() <= copied.size()
                    && std::equal(disk.begin() + static_cast<std::ptrdiff_t>(block.position),
                        disk.begin() + static_cast<std::ptrdiff_t>(block.end()),
                        copied.begin() + static_cast<std::ptrdiff_t>(block.position)))
                    << block.position << "+" << block.size;
            }
        return imager.map().total(finished);
    }

    const TemporaryFolder folder;
    const std::string image = folder / "disk.img";
    const std::string mapfile = folder / "disk.img.map";
    Blocks blocks; ///< the map after the last run
    int finalUpdates = 0;
};

/// Runs the program above a failing disk.
class FailingDisk : public Imaging {
protected:
    void SetUp() override
    {
        if (faultyDisk("", "").empty())
            GTEST_SKIP() << "there is no failing disk for this system";
    }

    std::unique_ptr<ChildProgram> start(const std::vector<std::string>& more = {})
    {
        auto environment = faultyDisk(disk, faults);
        environment.insert(environment.end(), more.begin(), more.end());
        return std::make_unique<ChildProgram>(std::vector<std::string> { "image", disk, image }, environment, output);
    }

    /// The offsets of the reads that were logged, in their order.
    std::vector<std::uint64_t> readOffsets() const
    {
        std::vector<std::uint64_t> offsets;
        std::ifstream file(log);
        for (std::uint64_t offset = 0, count = 0; file >> offset >> count;)
            offsets.push_back(offset);
        return offsets;
    }

    const std::string disk = folder / "disk";
    const std::string log = folder / "log";
    const std::string output = folder / "output";
    std::string faults;
};

} // namespace

TEST_F(Imaging, HealthySourceIsCopiedWhole)
{
    for (const std::size_t size : { 0_KiB, 1_KiB - 512, 300_KiB + 77 }) {
        const auto disk = patternBytes(size);
        const auto source = makeSource(disk);
        finalUpdates = 0;
        const auto stats = run(*source, { .chunkSize = 70'000 });
        EXPECT_EQ(readFile(image), disk);
        EXPECT_EQ(blocks, size == 0 ? Blocks() : (Blocks { { 0, size, finished } }));
        EXPECT_EQ(stats.phase, "Færdig");
        EXPECT_EQ(stats.message, std::nullopt);
        EXPECT_EQ(stats.rescued, size);
        EXPECT_EQ(stats.total, size);
        EXPECT_TRUE(stats.finished);
        EXPECT_EQ(finalUpdates, 1);
        std::filesystem::remove(image);
    }
}

TEST_F(Imaging, EveryReadableSectorIsRescued)
{
    std::mt19937 random(11);
    const auto upTo
        = [&](std::uint64_t limit) { return std::uniform_int_distribution<std::uint64_t>(0, limit)(random); };
    const auto pattern = patternBytes(200_KiB + 100);
    for (int round = 0; round < 30; ++round) {
        const Bytes disk(pattern.begin(), pattern.end() - round);
        const auto source = makeSource(disk);
        auto expected = disk;
        std::set<std::uint64_t> badSectors;
        for (auto count = upTo(6); count > 0; --count) {
            const auto start = upTo(disk.size() - 1);
            const ByteRange range { start, std::min<std::uint64_t>(start + 1 + upTo(20'000), disk.size()) };
            source->addSimulatedBadRange(range);
            const auto sectors = sectorsOf(range, disk.size());
            std::fill(expected.begin() + static_cast<std::ptrdiff_t>(sectors.start),
                expected.begin() + static_cast<std::ptrdiff_t>(sectors.end), std::uint8_t { 0 });
            for (auto at = sectors.start; at < sectors.end; at += sectorSize)
                badSectors.insert(at / sectorSize);
        }
        std::filesystem::remove(image);
        const auto stats
            = run(*source, { .retries = round % 3, .chunkSize = upTo(9'000), .maxSkip = upTo(1) * upTo(50'000) });
        ASSERT_EQ(readFile(image), expected) << round;
        ASSERT_EQ(source->badSectors(), std::vector(badSectors.begin(), badSectors.end()));
        for (const auto& block : blocks)
            ASSERT_TRUE(block.status == finished || block.status == bad) << round;
        ASSERT_EQ(stats.rescued + stats.bad, disk.size());
        ASSERT_EQ(stats.pending, 0u);
        ASSERT_EQ(RangeMap::read(mapfile, disk.size())->snapshot(), blocks);
    }
}

TEST_F(Imaging, ReadErrorsAreCountedOnceEach)
{
    const auto disk = patternBytes(64_KiB);
    for (const int retries : { 0, 1, 3 }) {
        const auto source = makeSource(disk);
        source->addSimulatedBadRange({ 20'480, 20'481 });
        std::filesystem::remove(image);
        const auto stats = run(*source, { .retries = retries, .chunkSize = 8'192 });
        EXPECT_EQ(blocks, (Blocks { { 0, 20'480, finished }, { 20'480, 512, bad }, { 20'992, 44'544, finished } }));
        EXPECT_EQ(stats.readErrors, 2 + retries); // the piece, the sector, and the sector again
        EXPECT_EQ(stats.pass, 3 + retries);
        EXPECT_EQ(stats.position, retries == 0 ? 20'992u : 20'480u);
    }
}

TEST_F(Imaging, StopsWhenCancelledInAPauseAndGoesOnLater)
{
    const auto disk = patternBytes(100_KiB);
    const auto source = makeSource(disk);
    {
        DiskImager imager(*source, image);
        EXPECT_FALSE(imager.isResuming());
        EXPECT_EQ(imager.mapPath(), mapfile);
        imager.setPaused(true);
        std::string phase;
        imager.run([&](const ImagingStats& stats) {
            if (!stats.finished)
                phase = stats.phase;
            imager.cancel();
        });
        EXPECT_EQ(phase, "Kopierer (hurtig gennemgang)");
        EXPECT_EQ(imager.currentStats().phase, "Stoppet");
        EXPECT_EQ(
            imager.currentStats().message, "Stoppet. Du kan fortsætte senere – fremskridtet er gemt i disk.img.map.");
        EXPECT_EQ(imager.map().total(finished), 0u);

        imager.setPaused(false);
        imager.run([](const ImagingStats&) {});
        EXPECT_EQ(imager.currentStats().phase, "Færdig");
        EXPECT_EQ(imager.currentStats().message, std::nullopt);
        EXPECT_EQ(readFile(image), disk);
    }
    EXPECT_TRUE(DiskImager(*source, image).isResuming());
    const auto before = source->bytesRead();
    run(*source);
    EXPECT_EQ(source->bytesRead(), before);
}

TEST_F(Imaging, BelievesNoMapfileThatTheImageDoesNotBearOut)
{
    const auto disk = patternBytes(64_KiB);
    const auto source = makeSource(disk);
    run(*source);

    std::filesystem::remove(image);
    EXPECT_FALSE(DiskImager(*source, image).isResuming());
    run(*source);
    EXPECT_EQ(readFile(image), disk);

    std::filesystem::resize_file(image, 10'000);
    DiskImager imager(*source, image);
    EXPECT_EQ(imager.map().snapshot(), (Blocks { { 0, 10'000, finished }, { 10'000, 55'536, nonTried } }));
    std::filesystem::remove(image); // between the looks at it
    imager.run([](const ImagingStats&) {});
    EXPECT_EQ(readFile(image), disk);
}

TEST_F(Imaging, WrongMapfileIsGoneBeforeTheImageHasTheLengthThatBearsItOut)
{
    const auto disk = patternBytes(64_KiB);
    const auto source = makeSource(disk);
    run(*source);
    std::filesystem::remove(image);

    // Nothing is copied before the pause, so the mapfile is the one that stands during the first pass.
    DiskImager imager(*source, image);
    imager.setPaused(true);
    imager.run([&](const ImagingStats& stats) {
        if (!stats.finished) {
            EXPECT_EQ(std::filesystem::file_size(image), disk.size());
            EXPECT_EQ(RangeMap::read(mapfile, disk.size())->total(finished), 0u);
        }
        imager.cancel();
    });

    // Where it cannot be replaced, the image stays as it is.
    writeFile(mapfile, bytesOf("0 ?\n0 65536 +\n"));
    std::filesystem::resize_file(image, 100);
    std::filesystem::create_directory(mapfile + ".tmp");
    run(*source);
    EXPECT_EQ(std::filesystem::file_size(image), 100u);
}

TEST_F(Imaging, ImageWithoutMapfileIsCopiedAnewInPlace)
{
    const auto disk = patternBytes(64_KiB);
    const auto source = makeSource(disk);
    source->addSimulatedBadRange({ 1'024, 2'048 });
    const auto older = patternBytes(80_KiB, 2);
    writeFile(image, older);
    run(*source);
    auto expected = older; // what is longer, or cannot be read, stays
    std::copy(disk.begin(), disk.begin() + 1'024, expected.begin());
    std::copy(disk.begin() + 2'048, disk.end(), expected.begin() + 2'048);
    EXPECT_EQ(readFile(image), expected);
}

TEST_F(Imaging, OtherToolsMapfilesAreTakenUpWithWholeSectors)
{
    const auto disk = patternBytes(16_KiB);
    const auto source = makeSource(disk);
    source->addSimulatedBadRange({ 5'000, 5'001 });
    const Bytes marked(disk.size(), 0xEE); // so that what is copied can be told from what was there
    writeFile(image, marked);
    writeFile(mapfile,
        bytesOf(
            "# Mapfile. Created by GNU ddrescue version 1.27\n0x1000 / 1\n"
            "0 700 +\n700 50 /\n750 3250 +\n4000 50 *\n4050 850 +\n4900 150 ?\n5050 3950 +\n9000 1 -\n9001 7383 +\n"));
    run(*source);
    auto expected = marked;
    for (const std::ptrdiff_t sector : { 1, 7, 17 })
        std::copy(disk.begin() + sector * 512, disk.begin() + (sector + 1) * 512, expected.begin() + sector * 512);
    EXPECT_EQ(readFile(image), expected);
    // Of the sector that cannot be read only that is bad which was not finished before.
    EXPECT_EQ(blocks, (Blocks { { 0, 4'900, finished }, { 4'900, 150, bad }, { 5'050, 11'334, finished } }));
    EXPECT_EQ(source->badSectors(), std::vector<std::uint64_t> { 9 });
}

TEST_F(Imaging, SourceIsNeverWrittenTo)
{
    const auto disk = patternBytes(4_KiB);
    const auto original = folder / "disk.img";
    writeFile(original, disk);
    std::filesystem::create_symlink(original, folder / "link");
    std::filesystem::create_hard_link(original, folder / "other.img");
    std::filesystem::create_hard_link(original, folder / "a.map");
    std::filesystem::create_symlink(original, folder / "b.map.tmp");
    std::filesystem::create_directory(folder / "folder");
    ASSERT_EQ(runCommand("mkfifo " + folder / "pipe"), 0);
    const auto source = SourceOpener::openImage(original);
    for (const char* const name : { "disk.img", "link", "other.img", "a", "b", "folder", "pipe", "missing/c" }) {
        DiskImager imager(*source, folder / name);
        int updates = 0;
        imager.run([&](const ImagingStats& stats) { updates += stats.finished ? 1 : 100; });
        const auto message = imager.currentStats().message.value_or("");
        EXPECT_EQ(message.rfind("Kunne ikke oprette billedfilen: ", 0), 0u) << name << ": " << message;
        EXPECT_EQ(updates, 1);
        EXPECT_EQ(readFile(original), disk) << name;
        EXPECT_TRUE(std::filesystem::is_symlink(folder / "b.map.tmp"));
    }
}

TEST_F(Imaging, FullDestinationEndsTheRunWithATrueMapfile)
{
    const auto disk = patternBytes(300_KiB);
    const auto source = makeSource(disk);
    writeFile(image, Bytes(disk.size()));
    {
        // The system stops a file here as it does on a full disk: a short write first, then an error.
        constexpr std::uint64_t room = 150'000;
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit old {};
        ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
        const rlimit limit { .rlim_cur = room, .rlim_max = old.rlim_max };
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        const auto stats = run(*source, { .chunkSize = 65'536 });
        ::setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
        EXPECT_EQ(stats.message, "Skrivning til billedfilen mislykkedes (er destinationen fuld?).");
        EXPECT_EQ(stats.phase, "Færdig");
        EXPECT_EQ(blocks, (Blocks { { 0, room, finished }, { room, disk.size() - room, nonTried } }));
        EXPECT_EQ(verifiedBytes(disk), room);
    }
    run(*source);
    EXPECT_EQ(readFile(image), disk);
    EXPECT_EQ(verifiedBytes(disk), disk.size());
}

TEST_F(FailingDisk, ErrorsOfTheSystemAreHeldOut)
{
    const auto bytes = patternBytes(5_MiB + 300);
    writeFile(disk, bytes);
    const ByteRange holes[] = { { 1'000'000, 1'000'001 }, { 2'000'000, 2'030'000 }, { 5'243'000, 5'243'100 } };
    faults = faultsOf({ std::begin(holes), std::end(holes) }) + "short:3000000-4000000,eintr:3500000-4500000";
    ASSERT_EQ(start()->wait(), 0);

    auto expected = bytes;
    RangeMap map(bytes.size());
    map.set(0, bytes.size(), finished);
    for (const auto& hole : holes) {
        const auto sectors = sectorsOf(hole, bytes.size());
        std::fill(expected.begin() + static_cast<std::ptrdiff_t>(sectors.start),
            expected.begin() + static_cast<std::ptrdiff_t>(sectors.end), std::uint8_t { 0 });
        map.set(sectors.start, sectors.end - sectors.start, bad);
    }
    EXPECT_EQ(readFile(image), expected);
    EXPECT_EQ(RangeMap::read(mapfile, bytes.size())->snapshot(), map.snapshot());

    // And the disk recovers: what was bad is read again.
    faults.clear();
    ASSERT_EQ(start()->wait(), 0);
    EXPECT_EQ(readFile(image), bytes);
}

TEST_F(FailingDisk, IsLeftInLeapsThatDoubleUpToALimit)
{
    std::filesystem::resize_file((writeFile(disk, {}), disk), 2'048_MiB);
    faults = "eio:1048576-2147483648";
    // The interrupt comes at some time in the second pass, which otherwise would last.
    auto program = start({ "READ_LOG=" + log, "READ_DELAY=5000" });
    ASSERT_TRUE(program->runsUntil([&] { return readOffsets().size() > 16; }));
    program->signal(SIGINT);
    EXPECT_EQ(program->wait(), 0);
    EXPECT_NE(program->printed().find("Stoppet: "), std::string::npos);
    EXPECT_NE(program->printed().find("Stoppet. Du kan fortsætte senere – fremskridtet er gemt i disk.img.map.\n"),
        std::string::npos);

    std::vector<std::uint64_t> offsets;
    for (const auto offset : readOffsets())
        offsets.push_back(offset / 1_MiB);
    const std::vector<std::uint64_t> expected { 0, 1, 3, 6, 11, 20, 37, 70, 135, 264, 521, 778, 1035, 1292, 1549, 1806,
        2 };
    ASSERT_GE(offsets.size(), expected.size());
    offsets.resize(expected.size());
    EXPECT_EQ(offsets, expected);
}

TEST_F(FailingDisk, DataThatDidNotReachTheDiskIsNotCalledFinished)
{
    const auto bytes = patternBytes(3_MiB);
    writeFile(disk, bytes);
    writeFile(image, {});
    auto program = start({ "FAULTY_FLUSH=" + image });
    EXPECT_EQ(program->wait(), 0);
    EXPECT_NE(program->printed().find("Skrivning til billedfilen mislykkedes (er destinationen fuld?).\n"),
        std::string::npos);
    EXPECT_EQ(RangeMap::read(mapfile, bytes.size())->total(finished), 0u);
    ASSERT_EQ(start()->wait(), 0);
    EXPECT_EQ(verifiedBytes(bytes), bytes.size());
}

TEST_F(FailingDisk, MapfilesAreExchangedWithDdrescue)
{
    if (!hasProgram("ddrescue") || !hasProgram("ddrescuelog"))
        GTEST_SKIP() << "ddrescue is not installed";
    const auto bytes = patternBytes(4_MiB);
    writeFile(disk, bytes);
    faults = "eio:1499648-1540096";
    std::string preload = "env ";
    for (const auto& variable : faultyDisk(disk, faults))
        preload += "'" + variable + "' ";

    // It reads what this program could not …
    ASSERT_EQ(start()->wait(), 0);
    std::string text;
    EXPECT_EQ(runCommand("ddrescuelog -t " + mapfile, &text), 0) << text;
    EXPECT_NE(text.find("rescued:    4153 kB,  in      2 area(s)"), std::string::npos) << text;
    EXPECT_NE(text.find("bad-sector:    40448 B,  in      1 area(s)"), std::string::npos) << text;
    EXPECT_EQ(runCommand("ddrescue -q -r1 " + disk + " " + image + " " + mapfile), 0);
    EXPECT_EQ(verifiedBytes(bytes), bytes.size());
    EXPECT_EQ(readFile(image), bytes);

    // … and this program what it left, with the edges of the damage found already.
    std::filesystem::remove(image);
    std::filesystem::remove(mapfile);
    EXPECT_EQ(runCommand(preload + "ddrescue -q --no-scrape " + disk + " " + image + " " + mapfile), 0);
    const auto theirs = RangeMap::read(mapfile, bytes.size());
    ASSERT_TRUE(theirs);
    EXPECT_GT(theirs->total(nonScraped), 0u);
    ASSERT_EQ(start({ "READ_LOG=" + log })->wait(), 0);
    const auto ours = RangeMap::read(mapfile, bytes.size());
    EXPECT_EQ(ours->total(nonScraped), 0u);
    EXPECT_FALSE(readOffsets().empty());
    for (const auto offset : readOffsets()) // what they have rescued is not read again
        EXPECT_TRUE(offset >= 1'499'648 && offset < 1'540'096) << offset;
    EXPECT_EQ(verifiedBytes(bytes), bytes.size() - 40'448);
}

TEST_F(FailingDisk, KilledAtAnyMomentGoesOnAndLosesNothing)
{
    const char* const wanted = std::getenv("VINTREL_KILLS"); // the more, the surer, and the longer
    const int kills = wanted != nullptr ? std::atoi(wanted) : 8;
    const auto bytes = patternBytes(8_MiB);
    writeFile(disk, bytes);
    const std::vector<ByteRange> holes { { 1'000'000, 1'001'000 }, { 3'000'000, 3'100'000 }, { 6'000'000, 6'000'100 } };
    faults = faultsOf(holes);
    auto expected = bytes;
    std::uint64_t readable = bytes.size();
    for (const auto& hole : holes) {
        const auto sectors = sectorsOf(hole, bytes.size());
        readable -= sectors.end - sectors.start;
        std::fill(expected.begin() + static_cast<std::ptrdiff_t>(sectors.start),
            expected.begin() + static_cast<std::ptrdiff_t>(sectors.end), std::uint8_t { 0 });
    }
    // With time a hundred times as fast the mapfile is saved every 50 ms, and killing does not take all day.
    const std::vector<std::string> slowly { "CLOCK_RATE=100", "READ_DELAY=50000" };
    std::mt19937 random(std::random_device {}());
    int completed = 0;
    int progressed = 0;
    std::uint64_t before = 0;
    for (int killed = 0; killed < kills;) {
        auto program = start(slowly);
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 400)(random)));
        program->signal(SIGKILL);
        const bool wasKilled = program->wait() == -SIGKILL;
        killed += wasKilled ? 1 : 0;
        const auto rescued = verifiedBytes(bytes);
        ASSERT_GE(rescued, before);
        progressed += rescued > before ? 1 : 0;
        before = rescued;
        if (!wasKilled) {
            EXPECT_EQ(readFile(image), expected);
            std::filesystem::remove(image); // the next run finds only the mapfile, and must not believe it
            before = 0;
            ++completed;
        }
    }
    EXPECT_EQ(start(slowly)->wait(), 0);
    EXPECT_EQ(readFile(image), expected);
    EXPECT_EQ(verifiedBytes(bytes), readable);
    EXPECT_GT(progressed, 0);
    if (wanted != nullptr)
        std::printf("%d kills, %d runs came to their end, %d left more behind than they found\n", kills, completed + 1,
            progressed);
}
