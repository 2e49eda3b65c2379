#include "Tests/Support/TestSource.h"
#include "VintrelCore/Recovery.h"
#include "VintrelCore/Unicode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// A tree to recover, a disk under it and a place to put it.
class Recovery : public ::testing::Test {
protected:
    FileNode& addFile(FileNode& folder, const std::string& name, FileData data = bytesOf("x"), std::uint64_t size = 1,
        EntryStatus status = EntryStatus::existing)
    {
        return folder.add(FileNode::makeFile(name, size, status, Recoverability::good, std::move(data)));
    }
    FileNode& addFolder(FileNode& folder, const std::string& name, EntryStatus status = EntryStatus::existing)
    {
        return folder.add(FileNode::makeFolder(name, status));
    }

    RecoveryResult recover(const RecoveryOptions& options = {}, const std::string& rootName = "")
    {
        std::vector<FileNode*> nodes;
        for (const auto& child : root->children())
            nodes.push_back(child.get());
        return RecoveryEngine::recover(nodes, rootName, *source, target.path(), options, nullptr, progress);
    }

    /// Paths of the files below a folder, sorted, without the report.
    static std::vector<std::string> filesIn(const std::string& folder)
    {
        std::vector<std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (!entry.is_directory() && entry.path().filename() != "Gendannelsesrapport.csv")
                files.push_back(fs::relative(entry.path(), folder).string());
        std::ranges::sort(files);
        return files;
    }
    static std::string text(const std::string& path)
    {
        const auto bytes = readFile(path);
        return { bytes.begin(), bytes.end() };
    }

    TemporaryFolder target;
    std::unique_ptr<FileNode> root = FileNode::makeFolder("", EntryStatus::existing);
    Bytes disk = patternBytes(6_MiB);
    std::unique_ptr<DiskSource> source = makeSource(disk);
    WorkProgress progress;
};

} // namespace

TEST(RecoveryNames, Sanitize)
{
    const std::string twoByte = "ø";
    std::string long150, cut125;
    for (int i = 0; i < 150; ++i)
        long150 += twoByte;
    for (int i = 0; i < 125; ++i)
        cut125 += twoByte;
    const struct {
        std::string name, expected;
    } cases[] = {
        { "a/b", "a:b" },
        { "   ", "unavngivet" },
        { "", "unavngivet" },
        { ".", "unavngivet" },
        { " .. ", "unavngivet" },
        { "...", "..." },
        { "../../etc/passwd", "..:..:etc:passwd" },
        { std::string("a\0b", 3), "a_b" },
        { "\n\u00A0 navn.txt\u3000\t", "navn.txt" },
        { long150, cut125 },
        { "x" + long150, "x" + cut125.substr(2) },
        { std::string(250, 'y'), std::string(250, 'y') },
        { std::string(251, 'y'), std::string(250, 'y') },
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(RecoveryEngine::sanitize(name), expected);
}

TEST(RecoveryNames, UniquePath)
{
    const TemporaryFolder folder;
    const auto taken = [&](const std::string& name) { writeFile(folder / name, {}); };
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / "foto.jpg", false), folder / "foto.jpg");
    taken("foto.jpg");
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / "foto.jpg", false), folder / "foto (2).jpg");
    taken("foto (2).jpg");
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / "foto.jpg", false), folder / "foto (3).jpg");
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / "foto.jpg", true), folder / "foto.jpg (2)");
    taken(".skjult");
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / ".skjult", false), folder / ".skjult (2)");
    ASSERT_EQ(::symlink("ingen steder", (folder / "hen.txt").c_str()), 0);
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / "hen.txt", false), folder / "hen (2).txt")
        << "a dead link is there too";
    const std::string longStem(245, 'a'); // with " (2)" one byte too long for a file system, so the last character goes
    taken(longStem + "øø.jp");
    EXPECT_EQ(RecoveryEngine::uniquePath(folder / (longStem + "øø.jp"), false), folder / (longStem + "ø (2).jp"));
}

TEST_F(Recovery, CopiesTheTreeWithDatesAndReport)
{
    auto& folder = addFolder(addFolder(*root, "DCIM"), "100KAM");
    auto& photo = addFile(folder, "IMG_1.JPG", ExtentList { { 4096, 5'000'000 } }, 5'000'000);
    photo.modified = Date { std::chrono::seconds { 1'000'000'000 } + std::chrono::milliseconds { 500 } };
    auto& damaged = addFile(*root, "skadet;fil.bin", ExtentList { { 5'500'000, 2000 } }, 2000, EntryStatus::deleted);
    damaged.recoverability = Recoverability::partial;
    damaged.note = "Dele \"mangler\"";
    addFile(*root, "tom.txt", ExtentList {}, 0);
    addFile(*root, "ukendt.bin", NoData {}, 77);
    addFolder(*root, "tom mappe");
    source->addSimulatedBadRange({ 5'500'500, 5'500'501 });

    const auto result = recover({}, "KORT (FAT32)");
    EXPECT_EQ(result.recovered, 3);
    EXPECT_EQ(result.withErrors, 1);
    EXPECT_EQ(result.failed, 0);
    EXPECT_EQ(result.bytes, 5'002'077u);
    EXPECT_FALSE(result.cancelled);
    EXPECT_TRUE(result.failures.empty());
    ASSERT_EQ(result.folder, target / "KORT (FAT32)");
    EXPECT_EQ(filesIn(*result.folder),
        (std::vector<std::string> { "DCIM/100KAM/IMG_1.JPG", "skadet;fil.bin", "tom.txt", "ukendt.bin" }));
    EXPECT_FALSE(fs::exists(*result.folder + "/tom mappe"));
    EXPECT_EQ(
        readFile(*result.folder + "/DCIM/100KAM/IMG_1.JPG"), Bytes(disk.begin() + 4096, disk.begin() + 5'004'096));
    EXPECT_EQ(text(*result.folder + "/Gendannelsesrapport.csv"),
        "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n"
        "DCIM/100KAM/IMG_1.JPG;5000000;OK;God;0;\n"
        "tom.txt;0;OK;God;0;\n"
        "ukendt.bin;77;OK;God;0;\n"
        "\"skadet;fil.bin\";2000;Ulæselige sektorer;Delvis;512;\"Dele \"\"mangler\"\"\"\n");
    struct stat status { };
    ASSERT_EQ(::stat((*result.folder + "/DCIM/100KAM/IMG_1.JPG").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtime, 1'000'000'000);

    EXPECT_EQ(*recover({}, "KORT (FAT32)").folder, target / "KORT (FAT32) (2)");
    EXPECT_EQ(*recover().folder, target / "Gendannet");
}

TEST_F(Recovery, OptionsAndChosenNodes)
{
    auto& folder = addFolder(*root, "mappe");
    auto& file = addFile(folder, "a.txt");
    file.modified = Date { std::chrono::seconds { 1'000'000'000 } };
    std::vector<FileNode*> nodes { &file, &folder, &file };
    const RecoveryOptions options { .keepFolderStructure = false, .restoreDates = false, .writeReport = false };
    std::vector<RecoveryProgress> reports;
    const auto result = RecoveryEngine::recover(
        nodes, "r", *source, target / "ny/dyb", options,
        [&](const RecoveryProgress& state) { reports.push_back(state); }, progress);
    EXPECT_EQ(result.recovered, 1) << "each node once";
    EXPECT_TRUE(fs::exists(target / "ny/dyb/r/a.txt"));
    EXPECT_FALSE(fs::exists(target / "ny/dyb/r/Gendannelsesrapport.csv"));
    struct stat status { };
    ASSERT_EQ(::stat((target / "ny/dyb/r/a.txt").c_str(), &status), 0);
    EXPECT_GT(status.st_mtime, 1'000'000'000);
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back().filesDone, 1);
    EXPECT_EQ(reports.back().filesTotal, 1);
    EXPECT_EQ(reports.back().bytesDone, 1u);
}

TEST_F(Recovery, NamesThatMeet)
{
    addFile(*root, "IMG.JPG", bytesOf("s"), 1, EntryStatus::deleted);
    addFile(*root, "IMG.JPG", bytesOf("e"));
    addFile(*root, "IMG.JPG", bytesOf("t"), 1, EntryStatus::deleted);
    addFile(*root, "Gendannelsesrapport.csv", bytesOf("c"));
    addFile(*root, "DCIM", bytesOf("f"));
    addFile(addFolder(*root, "DCIM"), "1.txt", bytesOf("1"));
    addFile(addFolder(*root, "DCIM", EntryStatus::deleted), "2.txt", bytesOf("2"), 1, EntryStatus::deleted);
    addFile(addFolder(*root, "rapport"), "x.txt", bytesOf("x"), 1, EntryStatus::deleted);
    addFile(*root, "rapport", bytesOf("r"));

    const auto result = recover();
    EXPECT_EQ(result.recovered, 9);
    const auto& folder = *result.folder;
    EXPECT_EQ(filesIn(folder),
        (std::vector<std::string> { "DCIM", "DCIM (2)/1.txt", "DCIM (2)/2.txt", "Gendannelsesrapport (2).csv",
            "IMG (2).JPG", "IMG (3).JPG", "IMG.JPG", "rapport", "rapport (2)/x.txt" }));
    EXPECT_EQ(text(folder + "/IMG.JPG"), "e") << "the existing one keeps its name";
    EXPECT_EQ(text(folder + "/Gendannelsesrapport (2).csv"), "c");
    EXPECT_NE(text(folder + "/Gendannelsesrapport.csv").find("\nDCIM (2)/1.txt;1;OK"), std::string::npos);
}

TEST_F(Recovery, HostileNamesStayInside)
{
    addFile(addFolder(*root, ".."), "../../ud.txt");
    addFile(addFolder(*root, "/etc"), "/passwd");
    addFile(*root, "linje\nskift");
    const auto result = recover();
    EXPECT_EQ(filesIn(*result.folder),
        (std::vector<std::string> { ":etc/:passwd", "linje\nskift", "unavngivet/..:..:ud.txt" }));
    EXPECT_EQ(std::distance(fs::directory_iterator(target.path()), {}), 1);
}

TEST_F(Recovery, PlantedLinksAreNotFollowed)
{
    TemporaryFolder elsewhere;
    writeFile(elsewhere / "offer.txt", bytesOf("urørt"));
    // While the first file is copied somebody plants links where the next ones are to go.
    addFile(*root, "1.txt", ExtentList { { 0, 10 } }, 10);
    auto& second = addFile(addFolder(*root, "mappe"), "2.txt");
    addFile(*root, "3.txt", bytesOf("min"), 3);
    second.status = EntryStatus::deleted;
    bool isPlanted = false;
    std::vector<FileNode*> nodes;
    for (const auto& child : root->children())
        nodes.push_back(child.get());
    const auto result = RecoveryEngine::recover(
        nodes, "r", *source, target.path(), {},
        [&](const RecoveryProgress&) {
            if (!std::exchange(isPlanted, true)) {
                EXPECT_EQ(::symlink(elsewhere.path().c_str(), (target / "r/mappe").c_str()), 0);
                EXPECT_EQ(::symlink((elsewhere / "offer.txt").c_str(), (target / "r/3.txt").c_str()), 0);
            }
        },
        progress);
    EXPECT_TRUE(isPlanted);
    EXPECT_EQ(result.recovered, 3);
    EXPECT_EQ(text(elsewhere / "offer.txt"), "urørt");
    EXPECT_EQ(std::distance(fs::directory_iterator(elsewhere.path()), {}), 1);
    EXPECT_EQ(text(target / "r/3 (2).txt"), "min");
    EXPECT_EQ(text(target / "r/mappe (2)/2.txt"), "x");
}

TEST_F(Recovery, ThousandsOfEqualNames)
{
    for (int i = 0; i < 3000; ++i)
        addFile(*root, "ens.txt");
    const auto result = recover();
    EXPECT_EQ(result.recovered, 3000);
    EXPECT_TRUE(fs::exists(*result.folder + "/ens (3000).txt"));
}

TEST_F(Recovery, HolesStaySparse)
{
    addFile(*root, "hul.bin", ExtentList { { 0, 4096 }, { std::nullopt, 1'000'000'000 }, { 4096, 10 } }, 3'000'000'000);
    const auto result = recover();
    EXPECT_EQ(result.recovered, 1);
    struct stat status { };
    ASSERT_EQ(::stat((*result.folder + "/hul.bin").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 3'000'000'000);
    EXPECT_LT(status.st_blocks * 512, 1'000'000);
    std::ifstream file(*result.folder + "/hul.bin", std::ios::binary);
    file.seekg(1'000'004'096);
    EXPECT_EQ(file.get(), disk[4096]);
}

TEST_F(Recovery, AFolderThatCannotBeMade)
{
    addFile(*root, "a.txt");
    addFile(*root, "b.txt");
    writeFile(target / "fil", bytesOf("x"));
    std::vector<FileNode*> nodes { root->children()[0].get(), root->children()[1].get() };
    const auto result = RecoveryEngine::recover(nodes, "r", *source, target / "fil", {}, nullptr, progress);
    EXPECT_EQ(result.failed, 2);
    EXPECT_FALSE(result.folder);
    EXPECT_EQ(result.failures,
        std::vector<std::string> { "Kunne ikke oprette mappen " + (target / "fil/r") + ": Not a directory" });
}

TEST_F(Recovery, AFileThatCannotBeWrittenIsRemovedAndTheRestGoesOn)
{
    // A limit on file sizes makes writing fail in the middle, as a file system's own limit would.
    addFile(*root, "1 stor.bin", ExtentList { { 0, 5_MiB } }, 5_MiB);
    addFile(*root, "2 lille.txt");
    rlimit old {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit { 4_MiB + 100, old.rlim_max };
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const auto result = recover();
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(result.recovered, 1);
    EXPECT_EQ(result.failed, 1);
    EXPECT_EQ(result.failures, std::vector<std::string> { "1 stor.bin: kunne ikke skrive filen: File too large" });
    EXPECT_EQ(filesIn(*result.folder), std::vector<std::string> { "2 lille.txt" });
}

TEST_F(Recovery, CancellationKeepsWhatIsDone)
{
    addFile(*root, "1.txt");
    addFile(*root, "2.bin", ExtentList { { 0, 6_MiB } }, 6_MiB);
    addFile(*root, "3.txt");
    std::vector<FileNode*> nodes;
    for (const auto& child : root->children())
        nodes.push_back(child.get());
    const auto result = RecoveryEngine::recover(
        nodes, "r", *source, target.path(), {}, [&](const RecoveryProgress&) { progress.cancel(); }, progress);
    EXPECT_TRUE(result.cancelled);
    EXPECT_TRUE(result.failures.empty());
    EXPECT_EQ(result.failed, 0);
    EXPECT_LE(result.recovered, 1);
    EXPECT_TRUE(fs::exists(target / "r/Gendannelsesrapport.csv"));
    EXPECT_EQ(filesIn(target / "r").size(), static_cast<std::size_t>(result.recovered)) << "nothing half copied";
}

TEST_F(Recovery, AFullDestinationEndsTheRun)
{
    const TemporaryFolder mounts;
    if (runCommand("mount -t tmpfs -o size=1m,nr_inodes=50 none " + mounts.path()) != 0)
        GTEST_SKIP() << "needs to mount a small file system";
    addFile(*root, "1 lille.txt");
    addFile(*root, "2 stor.bin", ExtentList { { 0, 5_MiB } }, 5_MiB);
    addFile(*root, "3 lille.txt");
    std::vector<FileNode*> nodes;
    for (const auto& child : root->children())
        nodes.push_back(child.get());
    const auto result = RecoveryEngine::recover(nodes, "r", *source, mounts.path(), {}, nullptr, progress);
    const auto report = text(mounts / "r/Gendannelsesrapport.csv");
    const auto files = filesIn(mounts / "r");
    ASSERT_EQ(runCommand("umount " + mounts.path()), 0);

    EXPECT_EQ(result.failures, std::vector<std::string> { "Destinationen er fuld – gendannelsen blev stoppet." });
    EXPECT_EQ(result.failed, 0);
    EXPECT_EQ(result.recovered, 1);
    EXPECT_EQ(files, std::vector<std::string> { "1 lille.txt" });
    EXPECT_NE(report.find("1 lille.txt;1;OK"), std::string::npos);
}
