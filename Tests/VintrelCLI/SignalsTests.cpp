#include "Tests/Images/FATImage.h"
#include "Tests/Support/ChildProgram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

/// A slow disk with a file system that holds many files.
class Signals : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (faultyDisk("", "").empty())
            GTEST_SKIP() << "there is no slow disk for this system";
        FATImage image({ .type = FileSystemType::fat16, .sectorsPerCluster = 4 });
        for (int number = 10; number < 10 + files; ++number)
            image.addFile(
                FATImage::root, { .name = std::to_string(number) + "         " }, content);
        writeFile(disk, image.bytes());
    }

    /// Starts the program above a disk that takes this many microseconds for a MiB.
    std::unique_ptr<ChildProgram> start(const std::vector<std::string>& arguments, int delay)
    {
        auto environment = faultyDisk(disk, "");
        environment.push_back("READ_LOG=" + log);
        environment.push_back("READ_DELAY=" + std::to_string(delay));
        return std::make_unique<ChildProgram>(arguments, environment, folder / "output");
    }

    static constexpr int files = 20;
    const Bytes content = patternBytes(400_KiB);
    const TemporaryFolder folder;
    const std::string disk = folder / "disk";
    const std::string log = folder / "log";
};

} // namespace

TEST_F(Signals, InterruptedRecoveryKeepsAndReportsWhatIsFinished)
{
    const auto recovered = folder / "target/Uden navn (FAT16)";
    auto program = start({ "recover", disk, folder / "target" }, 100'000);
    ASSERT_TRUE(program->runsUntil([&] { return std::filesystem::exists(recovered + "/12"); }));
    program->signal(SIGTERM);
    EXPECT_EQ(program->wait(), 128 + SIGTERM);

    int kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(recovered)) {
        if (entry.path().extension() == ".csv")
            continue;
        ++kept;
        EXPECT_EQ(readFile(entry.path().string()), content) << entry.path(); // nothing is cut off
    }
    EXPECT_GE(kept, 2);
    EXPECT_LT(kept, files);
    EXPECT_NE(program->printed().find(
                  ": " + std::to_string(kept) + " gendannet, 0 med fejl, 0 mislykkedes → "),
        std::string::npos)
        << program->printed();
    EXPECT_NE(program->printed().find("Stoppet: resultatet er ufuldstændigt. Gendannelsen nåede "
                  + std::to_string(kept) + " filer."),
        std::string::npos)
        << program->printed();
    EXPECT_EQ(std::ranges::count(readFile(recovered + "/Gendannelsesrapport.csv"), '\n'), 1 + kept);
}

TEST_F(Signals, AskForTheStateWithoutEndingAnything)
{
    const std::pair<std::vector<std::string>, const char*> rows[] = {
        { { "recover", disk, folder / "target" }, " af 20 filer\n" },
        { { "deep", disk }, " % af 8.4 MB, " },
        { { "image", disk, folder / "image" }, " tilbage\nKopierer (hurtig gennemgang): " },
    };
    for (const auto& [arguments, text] : rows) {
        std::filesystem::remove(log);
        auto program = start(arguments, 150'000);
        ASSERT_TRUE(program->runsUntil([&] { return !readFile(log).empty(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        program->signal(SIGUSR1);
        EXPECT_EQ(program->wait(), 0);
        EXPECT_NE(program->printed().find(text), std::string::npos) << program->printed();
    }
}

TEST_F(Signals, InterruptedScanEndsInOrderAndASecondSignalEndsAtOnce)
{
    auto scan = start({ "scan", disk }, 1'000'000);
    ASSERT_TRUE(scan->runsUntil([&] { return !readFile(log).empty(); }));
    scan->signal(SIGHUP);
    EXPECT_EQ(scan->wait(), 128 + SIGHUP);
    EXPECT_NE(scan->printed().find("Stoppet: resultatet er ufuldstændigt. Den hurtige scanning"),
        std::string::npos)
        << scan->printed();

    auto imaging = start({ "image", disk, folder / "image" }, 30'000'000);
    ASSERT_TRUE(imaging->runsUntil([&] { return std::filesystem::exists(folder / "image"); }));
    imaging->signal(SIGINT);
    imaging->signal(SIGTERM); // two of one kind that come at the same moment would be one
    EXPECT_EQ(imaging->wait(), -SIGTERM);
}
