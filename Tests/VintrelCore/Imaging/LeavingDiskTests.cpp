#include "Tests/Images/FATImage.h"
#include "Tests/Support/ChildProgram.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

using enum RangeMap::Status;

/// Runs the program above a disk that leaves.
class LeavingDisk : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (faultyDisk("", "").empty())
            GTEST_SKIP() << "there is no failing disk for this system";
    }

    /// Returns what it printed. `leaves` and `faults` are described in FaultyDisk.cpp.
    std::string runProgram(const std::vector<std::string>& arguments, int status,
        const std::string& leaves, const std::string& faults = "")
    {
        std::filesystem::remove(log);
        auto environment = faultyDisk(disk, faults);
        environment.insert(environment.end(), { "FAULTY_DEVICE=1", "READ_LOG=" + log });
        if (!leaves.empty())
            environment.push_back("LEAVES=" + leaves);
        ChildProgram program(arguments, environment, folder / "output");
        EXPECT_EQ(program.wait(), status);
        return program.printed();
    }

    std::ptrdiff_t reads() const { return std::ranges::count(readFile(log), '\n'); }
    std::uint64_t total(RangeMap::Status status, const Bytes& bytes) const
    {
        return RangeMap::read(image + ".map", bytes.size())->total(status);
    }

    const TemporaryFolder folder;
    const std::string disk = folder / "disk";
    const std::string image = folder / "disk.img";
    const std::string log = folder / "log";
};

constexpr const char* stopped = "disk svarer ikke længere, og læsningen blev stoppet.\n";
constexpr const char* canGoOn
    = "Stoppet. Du kan fortsætte senere – fremskridtet er gemt i disk.img.map.\n";

} // namespace

TEST_F(LeavingDisk, StopsTheImagingWhichGoesOnWhenItIsBack)
{
    const auto bytes = patternBytes(40_MiB);
    writeFile(disk, bytes);
    struct Row {
        const char* leaves;
        const char* faults;
        std::uint64_t finished, nonTrimmed, bad;
        std::ptrdiff_t reads;
    };
    // In the copying, once without an error; and in the reading sector by sector of the fifth MiB,
    // which takes the 41st read and those behind it. Its first 300 sectors are bad indeed, and
    // three times in between the disk has to read a sound one again.
    const Row rows[]
        = { { "empty:20", "", 20_MiB, 0, 0, 21 }, { "eio:20", "", 20_MiB, 0, 0, 20 + 64 + 2 },
              { "eio:1000", "eio:4194304-4347904", 39_MiB + 657 * 512, 1_MiB - 957 * 512, 300 * 512,
                  1000 + 64 + 2 } };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.leaves);
        std::filesystem::remove(image);
        const auto printed = runProgram({ "image", disk, image }, 0, row.leaves, row.faults);
        EXPECT_NE(printed.find(stopped), std::string::npos) << printed;
        EXPECT_NE(printed.find(canGoOn), std::string::npos) << printed;
        EXPECT_EQ(total(finished, bytes), row.finished);
        EXPECT_EQ(total(nonTrimmed, bytes), row.nonTrimmed);
        EXPECT_EQ(total(bad, bytes), row.bad);
        EXPECT_EQ(reads(), row.reads);
        runProgram({ "image", disk, image }, 0, "");
        EXPECT_TRUE(readFile(image) == bytes);
    }
}

TEST_F(LeavingDisk, IsNotMistakenForADiskThatIsDamagedOrNeverReadWell)
{
    const auto bytes = patternBytes(2_MiB);
    writeFile(disk, bytes);
    for (const auto& [faults, badBytes] :
        { std::pair("eio:0-2097152", 2_MiB), { "eio:4096-2097152", 2_MiB - 4_KiB } }) {
        std::filesystem::remove(image);
        const auto printed = runProgram({ "image", disk, image }, 0, "", faults);
        EXPECT_EQ(printed.find(stopped), std::string::npos) << printed;
        EXPECT_EQ(total(bad, bytes), badBytes);
    }
    // Image files stay, whatever fails.
    std::filesystem::remove(image);
    auto environment = faultyDisk(disk, "");
    environment.emplace_back("LEAVES=empty:1");
    ChildProgram program({ "image", disk, image }, environment, folder / "output");
    EXPECT_EQ(program.wait(), 0);
    EXPECT_EQ(total(finished, bytes), 2_MiB);
}

TEST_F(LeavingDisk, EndsRecoveryAndScansWithALineInsteadOfFilesOfZeros)
{
    FATImage card({ .type = FileSystemType::fat16, .sectorsPerCluster = 4 });
    const auto content = patternBytes(400_KiB);
    for (int number = 10; number < 30; ++number)
        card.addFile(FATImage::root, { .name = std::to_string(number) + "         " }, content);
    writeFile(disk, card.bytes());
    const std::string incomplete = "Stoppet: resultatet er ufuldstændigt. ";
    for (const char* leaves : { "empty:10", "eio:10" }) {
        SCOPED_TRACE(leaves);
        std::filesystem::remove_all(folder / "ud");
        const auto printed = runProgram({ "recover", disk, folder / "ud" }, 2, leaves);
        EXPECT_NE(printed.find(stopped + incomplete + "Gendannelsen nåede "), std::string::npos)
            << printed;
        int kept = 0;
        for (const auto& entry :
            std::filesystem::directory_iterator(folder / "ud/Uden navn (FAT16)"))
            if (entry.path().extension() != ".csv") {
                EXPECT_EQ(readFile(entry.path().string()), content) << entry.path();
                ++kept;
            }
        EXPECT_GT(kept, 0);
        EXPECT_LT(kept, 20);
        const auto deep
            = runProgram({ "deep", disk }, 2, std::string(leaves, std::strlen(leaves) - 1));
        EXPECT_NE(deep.find(stopped + incomplete), std::string::npos) << deep;
        EXPECT_LE(reads(), 1 + 200);
    }
}
