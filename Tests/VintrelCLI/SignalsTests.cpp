#include "Tests/Support/ChildProgram.h"
#include "Tests/Support/TestSource.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

namespace {

/// A slow disk with a file system that holds many files.
class Signals : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (faultyDisk("", "").empty())
            GTEST_SKIP() << "there is no slow disk for this system";
        if (!hasProgram("mkfs.fat") || !hasProgram("mcopy"))
            GTEST_SKIP() << "dosfstools or mtools is not installed";
        std::filesystem::create_directory(folder / "files");
        for (int number = 10; number < 10 + files; ++number)
            writeFile(folder / "files/" + std::to_string(number), content);
        ASSERT_EQ(runCommand("mkfs.fat -C " + disk + " 32768 && mcopy -i " + disk + " " + folder / "files/* ::"), 0);
    }

    std::unique_ptr<ChildProgram> start(const std::vector<std::string>& arguments, int delay)
    {
        auto environment = faultyDisk(disk, "");
        environment.push_back("READ_LOG=" + log);
        environment.push_back("READ_DELAY=" + std::to_string(delay)); // microseconds a MiB
        return std::make_unique<ChildProgram>(arguments, environment, folder / "output");
    }

    static constexpr int files = 40;
    const Bytes content = patternBytes(400_KiB);
    const TemporaryFolder folder;
    const std::string disk = folder / "disk";
    const std::string log = folder / "log";
    const std::string target = folder / "target";
    const std::string recovered = target + "/Uden navn (FAT16)";
};

} // namespace

TEST_F(Signals, InterruptedRecoveryKeepsAndReportsWhatIsFinished)
{
    auto program = start({ "recover", disk, target }, 50'000);
    ASSERT_TRUE(program->runsUntil([&] { return std::filesystem::exists(recovered + "/12"); }));
    program->signal(SIGTERM);
    EXPECT_EQ(program->wait(), 0);

    int kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(recovered)) {
        if (entry.path().extension() == ".csv")
            continue;
        ++kept;
        EXPECT_EQ(readFile(entry.path().string()), content) << entry.path(); // nothing is cut off
    }
    EXPECT_GE(kept, 2);
    EXPECT_LT(kept, files);
    EXPECT_NE(program->printed().find(": " + std::to_string(kept) + " gendannet, 0 med fejl, 0 mislykkedes → "),
        std::string::npos)
        << program->printed();
    std::ifstream report(recovered + "/Gendannelsesrapport.csv");
    int lines = 0;
    for (std::string line; std::getline(report, line);)
        ++lines;
    EXPECT_EQ(lines, 1 + kept);
}

TEST_F(Signals, InterruptedScanEndsInOrder)
{
    for (const char* const command : { "scan", "tree" }) {
        auto program = start({ command, disk }, 1'000'000);
        ASSERT_TRUE(program->runsUntil([&] { return !readFile(log).empty(); }));
        program->signal(SIGINT);
        EXPECT_EQ(program->wait(), 0) << command;
        std::filesystem::remove(log);
    }
}

TEST_F(Signals, SecondOneEndsAtOnce)
{
    for (const int second : { SIGINT, SIGTERM }) {
        auto program = start({ "image", disk, folder / "image" }, 30'000'000);
        ASSERT_TRUE(program->runsUntil([&] { return std::filesystem::exists(folder / "image"); }));
        program->signal(SIGINT);
        // Two of one kind that come at the same moment are one.
        ASSERT_TRUE(second != SIGINT || program->runsUntil([&] { return !program->catches(SIGINT); }));
        program->signal(second);
        EXPECT_EQ(program->wait(), -second);
        std::filesystem::remove(folder / "image");
    }
}
