#include "Tests/VintrelCore/Recovery/RecoveryFixture.h"
#include "VintrelCore/Recovery/SafeName.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(RecoveryNames, AreMadeSafeForAnyFileSystem)
{
    std::string long150, cut125;
    for (int i = 0; i < 150; ++i)
        (i < 125 ? cut125 : long150) += "ø";
    long150 += cut125;
    const std::pair<std::string, std::string> cases[] = {
        { " .. ", "unavngivet" },
        { "...", "..." },
        { "../../etc/passwd", "..:..:etc:passwd" },
        { std::string("a\0b", 3), "a_b" },
        { "\n\u00A0 navn.txt\u3000\t", "navn.txt" },
        { long150, cut125 },
        { "x" + long150, "x" + cut125.substr(2) },
        { std::string(251, 'y'), std::string(250, 'y') },
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(RecoveryEngine::sanitize(name), expected);
}

TEST(RecoveryNames, ArePortableWhereTheyHaveToBe)
{
    const std::pair<std::string, std::string> cases[] = {
        { "<a>:\"b|c?*\\\t\x7F", "_a___b_c_____" },
        { "slut. . ", "slut" },
        { "...", "unavngivet" },
        { "con", "con_" },
        { "Com1.tar.gz", "Com1_.tar.gz" },
        { "NUL .txt", "NUL _.txt" },
        { "COM0", "COM0" },
        { "CONTO.txt", "CONTO.txt" },
        { "så.jpg", "så.jpg" },
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(RecoveryEngine::portableName(name), expected);
    const std::string name = std::string(200, 'n') + ".jpg";
    EXPECT_EQ(RecoveryEngine::numberedName(name, 1, false, 143), std::string(139, 'n') + ".jpg");
    EXPECT_EQ(
        RecoveryEngine::numberedName(name, 2, false, 143), std::string(135, 'n') + " (2).jpg");
}

TEST_F(Recovery, CopiesTheTreeWithDatesAndReport)
{
    auto& photo = addFile(addFolder(addFolder(*root, "DCIM"), "100KAM"), "IMG_1.JPG",
        ExtentList { { 4096, 5'000'000 } }, 5'000'000);
    photo.modified = Date { std::chrono::seconds { 1'000'000'000 } };
    auto& damaged = addFile(
        *root, "skadet;fil.bin", ExtentList { { 5'500'000, 2000 } }, 2000, EntryStatus::deleted);
    damaged.recoverability = Recoverability::partial;
    damaged.note = "Dele \"mangler\"";
    addFile(*root, "vogn\rretur", NoData {});
    addFile(*root, "tom.txt", ExtentList {}, 0);
    addFile(*root, "ukendt.bin", NoData {}, 77);
    addFolder(*root, "tom mappe");
    source->addSimulatedBadRange({ 5'500'500, 5'500'501 });

    RecoveryProgress last;
    const auto result = recover([&](const RecoveryProgress& state) { last = state; });
    EXPECT_EQ(result.recovered, 4);
    EXPECT_EQ(result.withErrors, 1);
    EXPECT_EQ(result.failed, 0);
    EXPECT_EQ(result.bytes, 5'002'078u);
    EXPECT_EQ(last.filesDone, last.filesTotal);
    ASSERT_EQ(result.folder, target / "r");
    EXPECT_EQ(filesIn(target / "r"),
        (std::vector<std::string> {
            "DCIM/100KAM/IMG_1.JPG", "skadet;fil.bin", "tom.txt", "ukendt.bin", "vogn\rretur" }));
    EXPECT_TRUE(readFile(target / "r/DCIM/100KAM/IMG_1.JPG")
        == Bytes(disk.begin() + 4096, disk.begin() + 5'004'096));
    EXPECT_EQ(text(target / "r/Gendannelsesrapport.csv"),
        "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n"
        "DCIM/100KAM/IMG_1.JPG;5000000;OK;God;0;\n"
        "\"vogn\rretur\";1;OK;God;0;\n"
        "tom.txt;0;OK;God;0;\n"
        "ukendt.bin;77;OK;God;0;\n"
        "\"skadet;fil.bin\";2000;Ulæselige sektorer;Delvis;512;\"Dele \"\"mangler\"\"\"\n");
    struct stat status { };
    ASSERT_EQ(::stat((target / "r/DCIM/100KAM/IMG_1.JPG").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtime, 1'000'000'000);
    EXPECT_EQ(*recover().folder, target / "r (2)");
}

TEST_F(Recovery, KeepsDatesFarFromNowWhereTheDestinationDoes)
{
    using namespace std::chrono;
    const std::pair<const char*, Date> dates[] = {
        { "1904", sys_days { 1904y / 1 / 1 } + 1s },
        { "1969", sys_days { 1969y / 12 / 31 } + 23h + 500ms },
        { "2107", sys_days { 2107y / 12 / 31 } + 23h },
    };
    for (const auto& [name, date] : dates)
        addFile(*root, name).modified = date;
    recover();
    const auto own = target / "til sammenligning";
    writeFile(own, {});
    for (const auto& [name, date] : dates) {
        const auto second = floor<std::chrono::seconds>(date);
        const std::timespec wanted { second.time_since_epoch().count(), (date - second).count() };
        const std::timespec times[] = { wanted, wanted };
        ASSERT_EQ(::utimensat(AT_FDCWD, own.c_str(), times, 0), 0);
        EXPECT_EQ(
            fs::last_write_time(target / ("r/" + std::string(name))), fs::last_write_time(own));
    }
}

TEST_F(Recovery, NumbersThousandsOfEqualNamesInOneFolder)
{
    const std::string stem(242, 'a'); // with a number the name becomes too long for a file system
    std::vector<FileNode*> nodes;
    for (int i = 0; i < 3000; ++i)
        nodes.push_back(&addFile(addFolder(*root, "mappe"), stem + "øø.txt"));
    nodes.push_back(nodes[0]->parent());
    nodes[0]->modified = Date { std::chrono::seconds { 1'000'000'000 } };
    const RecoveryOptions options {
        .keepFolderStructure = false, .restoreDates = false, .writeReport = false
    };
    const auto result = RecoveryEngine::recover(
        nodes, "", *source, target / "ny/dyb", options, nullptr, progress);
    EXPECT_EQ(result.recovered, 3000) << "each node once";
    EXPECT_FALSE(fs::exists(target / "ny/dyb/Gendannet/Gendannelsesrapport.csv"));
    EXPECT_TRUE(fs::exists(target / ("ny/dyb/Gendannet/" + stem + "ø (3000).txt")));
    struct stat status { };
    ASSERT_EQ(::stat((target / ("ny/dyb/Gendannet/" + stem + "øø.txt")).c_str(), &status), 0);
    EXPECT_GT(status.st_mtime, 1'000'000'000);
}

TEST_F(Recovery, TellsOfContentThatIsNothingButZeros)
{
    std::ranges::fill(std::span(disk).first(8'192), std::uint8_t { 0 });
    source = makeSource(disk);
    const ExtentList zeros { { 0, 2'048 } }, almost { { 7'000, 2'048 } };
    addFile(*root, "slettet", zeros, 2'048, EntryStatus::deleted);
    addFile(*root, "fundet", zeros, 2'048, EntryStatus::carved);
    addFile(*root, "hul", ExtentList { { std::nullopt, 2'048 } }, 2'048, EntryStatus::orphaned);
    addFile(*root, "findes", zeros, 2'048, EntryStatus::existing);
    addFile(*root, "lille", ExtentList { { 0, 511 } }, 511, EntryStatus::deleted);
    addFile(*root, "indhold", almost, 2'048, EntryStatus::deleted);
    const auto result = recover();
    const std::string emptied
        = ";2048;OK;Ringe;0;Alt indhold er nul – disken har sandsynligvis selv tømt pladsen\n";
    EXPECT_EQ(text(*result.folder + "/Gendannelsesrapport.csv"),
        "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n"
        "findes;2048;OK;God;0;\nslettet"
            + emptied + "fundet" + emptied + "hul" + emptied
            + "lille;511;OK;God;0;\nindhold;2048;OK;God;0;\n");
}

TEST_F(Recovery, KeepsNamesThatMeetOrAreHostileApartAndInside)
{
    addFile(*root, "IMG.JPG", bytesOf("s"), 1, EntryStatus::deleted);
    addFile(*root, "IMG.JPG", bytesOf("e"));
    addFile(*root, "IMG.JPG", bytesOf("t"), 1, EntryStatus::deleted);
    addFile(*root, "Gendannelsesrapport.csv", bytesOf("c"));
    addFile(*root, "DCIM", bytesOf("f"));
    addFile(addFolder(*root, "DCIM"), "1.txt", bytesOf("1"));
    addFile(addFolder(*root, "DCIM", EntryStatus::deleted), "2.txt", bytesOf("2"), 1,
        EntryStatus::deleted);
    addFile(*root, ".skjult");
    addFile(*root, ".skjult");
    addFile(addFolder(*root, ".."), "../../ud.txt");
    addFile(addFolder(*root, "/etc"), "/passwd");

    const auto result = recover();
    EXPECT_EQ(filesIn(target / "r"),
        (std::vector<std::string> { ".skjult", ".skjult (2)", ":etc/:passwd", "DCIM",
            "DCIM (2)/1.txt", "DCIM (2)/2.txt", "Gendannelsesrapport (2).csv", "IMG (2).JPG",
            "IMG (3).JPG", "IMG.JPG", "unavngivet/..:..:ud.txt" }));
    EXPECT_EQ(std::distance(fs::directory_iterator(target.path()), {}), 1);
    EXPECT_EQ(text(target / "r/IMG.JPG"), "e") << "the existing one keeps its name";
    EXPECT_NE(text(target / "r/Gendannelsesrapport.csv").find("\nDCIM (2)/1.txt;1;OK"),
        std::string::npos);
}

TEST_F(Recovery, BelongsToWhoeverCalledAndIsPrivate)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs to be root";
    addFile(addFolder(*root, "mappe"), "1.txt");
    setenv("SUDO_UID", "4321", 1);
    setenv("SUDO_GID", "1234", 1);
    const std::vector<FileNode*> nodes { root->children()[0].get() };
    RecoveryEngine::recover(nodes, "r", *source, target / "ny/dyb", {}, nullptr, progress);
    unsetenv("SUDO_UID");
    unsetenv("SUDO_GID");
    struct stat status { };
    for (const char* name : { "ny", "ny/dyb", "ny/dyb/r", "ny/dyb/r/mappe", "ny/dyb/r/mappe/1.txt",
             "ny/dyb/r/Gendannelsesrapport.csv" }) {
        ASSERT_EQ(::stat((target / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 4321u) << name;
        EXPECT_EQ(status.st_gid, 1234u) << name;
    }
    ASSERT_EQ(::stat((target / "ny/dyb/r").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(Recovery, LeavesNoCutFileWhenMemoryRunsOut)
{
    addFile(*root, "1.txt", NoData {});
    addFile(*root, "2.bin", ExtentList { { 0, 5_MiB } }, 5_MiB);
    EXPECT_THROW(recover([](const RecoveryProgress&) { throw std::bad_alloc(); }), std::bad_alloc);
    EXPECT_EQ(filesIn(target / "r"), std::vector<std::string> { "1.txt" });
    EXPECT_TRUE(text(target / "r/Gendannelsesrapport.csv").ends_with("\n1.txt;1;OK;God;0;\n"));
}

TEST_F(Recovery, FollowsNoPlantedLink)
{
    const TemporaryFolder elsewhere;
    writeFile(elsewhere / "offer.txt", bytesOf("urørt"));
    // While the first file is copied somebody plants links where the next ones are to go, and in
    // place of a folder that was made already.
    addFile(addFolder(*root, "0"), "1.txt", ExtentList { { 0, 10 } }, 10);
    addFile(addFolder(*root, "mappe"), "2.txt");
    addFile(*root, "3.txt", bytesOf("min"), 3);
    addFile(*root->folders()[0], "4.txt", bytesOf("x"), 1, EntryStatus::deleted);
    bool isPlanted = false;
    const auto result = recover([&](const RecoveryProgress&) {
        if (std::exchange(isPlanted, true))
            return;
        fs::rename(target / "r/0", target / "r/flyttet");
        for (const char* name : { "r/0", "r/mappe" })
            fs::create_symlink(elsewhere.path(), target / name);
        fs::create_symlink(elsewhere / "offer.txt", target / "r/3.txt");
    });
    EXPECT_EQ(result.recovered, 3);
    EXPECT_EQ(result.failed, 1);
    EXPECT_EQ(filesIn(elsewhere.path()), std::vector<std::string> { "offer.txt" });
    EXPECT_EQ(text(elsewhere / "offer.txt"), "urørt");
    EXPECT_EQ(text(target / "r/3 (2).txt"), "min");
    EXPECT_EQ(text(target / "r/mappe (2)/2.txt"), "x");
}

TEST_F(Recovery, LeavesHolesSparse)
{
    addFile(*root, "hul.bin",
        ExtentList { { 0, 4096 }, { std::nullopt, 1'000'000'000 }, { 4096, 10 } }, 3'000'000'000);
    EXPECT_EQ(recover().recovered, 1);
    struct stat status { };
    ASSERT_EQ(::stat((target / "r/hul.bin").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 3'000'000'000);
    EXPECT_LT(status.st_blocks * 512, 1'000'000);
    std::ifstream file(target / "r/hul.bin", std::ios::binary);
    file.seekg(1'000'004'096);
    EXPECT_EQ(file.get(), disk[4096]);
}

TEST_F(Recovery, EndsWhenTheDestinationIsFull)
{
    if (runCommand("mount -t tmpfs -o size=2m,nr_inodes=50 none " + target.path()) != 0)
        GTEST_SKIP() << "needs to mount a small file system";
    addFile(*root, "1 tom.txt", NoData {});
    addFile(*root, "2 stor.bin", ExtentList { { 0, 5_MiB } }, 5_MiB);
    addFile(*root, "3.bin", ExtentList { { 0, 1'500_KiB } }, 1'500_KiB);
    addFile(*root, "4 lille.txt");
    const std::string foreign = target / "andres";
    const auto result = recover([&](const RecoveryProgress&) { // its room is taken on the way
        writeFile(foreign, Bytes(700_KiB));
    });
    const auto report = text(target / "r/Gendannelsesrapport.csv");
    const auto files = filesIn(target / "r");
    ASSERT_EQ(runCommand("umount " + target.path()), 0);

    ASSERT_EQ(result.failures.size(), 2u);
    EXPECT_TRUE(result.failures[0].starts_with(
        "2 stor.bin: filen fylder 5242880 bytes, og på destinationen er der kun plads til "));
    EXPECT_EQ(result.failures[1], "Destinationen er fuld – gendannelsen blev stoppet.");
    EXPECT_EQ(files, std::vector<std::string> { "1 tom.txt" });
    EXPECT_NE(report.find("1 tom.txt;1;OK"), std::string::npos);
}

TEST_F(Recovery, ReportsOnADiskThatOthersFill)
{
    if (runCommand("mount -t tmpfs -o size=1m none " + target.path()) != 0)
        GTEST_SKIP() << "needs to mount a small file system";
    addFile(*root, "1.txt");
    for (int i = 0; i < 100; ++i) // takes no room on this file system, but in the report
        addFile(*root, std::string(200, 'n'), ExtentList {}, 0);
    const std::string foreign = target / "andres";
    const auto result = recover([&](const RecoveryProgress&) { writeFile(foreign, Bytes(1_MiB)); });
    const auto report = readFile(target / "r/Gendannelsesrapport.csv");
    ASSERT_EQ(runCommand("umount " + target.path()), 0);
    EXPECT_EQ(result.recovered, 101);
    EXPECT_EQ(std::ranges::count(report, '\n'), 102);
}
