#include "Tests/Images/FATImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCLI/CommandLine.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

namespace {

/// What a command printed.
struct Outcome {
    int status = -1;
    std::string out, err;
};

Outcome runWith(std::vector<std::string> arguments)
{
    std::ostringstream out, err;
    const int status = run(arguments, out, err);
    return { status, out.str(), err.str() };
}

/// A command line of the real program, for what only a process of its own shows.
Outcome runProgram(const std::string& arguments, const std::string& preparation = "")
{
    Outcome outcome;
    outcome.status = runCommand(preparation + "timeout 20 '" VINTREL_PROGRAM "' " + arguments, &outcome.out);
    return outcome;
}

/// A memory card with a deleted photo, a damaged file and a name that would play with the terminal.
class Card : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        setenv("LC_ALL", "C", 1);
        FATImage image({ .type = FileSystemType::fat16, .label = "KAMERA     " });
        const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " });
        image.addFile(folder, { .name = "IMG_0010JPG" }, patternBytes(2'000));
        image.addFile(folder, { .name = "IMG_0002JPG" }, photo);
        image.addFile(folder, { .name = "IMG_00~1JPG", .longName = u"Sommer ved søen.jpg" }, photo);
        image.remove(folder, "IMG_00~1JPG");
        image.addEntry(FATImage::root, { .name = "KNAEKKETTXT", .cluster = 1, .size = 9 });
        image.addFile(FATImage::root, { .name = "ESC     TXT", .longName = u"\u001B[2J\u202Egpj.exe" }, bytesOf("!"));
        photoOffset = image.offsetOf(folder + 1 + 4);
        writeFile(path, image.bytes());
    }
    void TearDown() override
    {
        unsetenv("TZ");
        unsetenv("LC_ALL");
        unsetenv("VINTREL_SIMULATE_BAD");
    }

    TemporaryFolder folder;
    std::string path = folder / "kort.img";
    Bytes photo = patternBytes(3'000, 7);
    std::uint64_t photoOffset = 0; ///< of IMG_0002.JPG
};

} // namespace

TEST_F(Card, Scan)
{
    const auto result = runWith({ "scan", path });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
        "kort.img: 2.1 MB, sektor 512 B\n"
        "Partitionering: Ingen partitionstabel\n"
        "  #1 Hele disken @ 0 2.1 MB FAT16\n"
        "  KAMERA (FAT16): 5 filer, 1 mapper, 1 slettede, 8 KB\n");
}

TEST_F(Card, Tree)
{
    const auto result = runWith({ "tree", path });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
        "KAMERA (FAT16) [Hele disken] @ 0\n"
        "  DCIM/\n"
        "    IMG_0002.JPG  3 KB  2025-10-03 12:00:00\n"
        "    IMG_0010.JPG  2 KB  2025-10-03 12:00:00\n"
        "    Sommer ved søen.jpg  3 KB  2025-10-03 12:00:00  [Slettet, God]\n"
        "  \\x1B[2J\\u202Egpj.exe  1 byte  2025-10-03 12:00:00\n"
        "  KNAEKKET.TXT  9 bytes  2025-10-03 12:00:00  Ugyldig startklynge\n");
}

TEST_F(Card, RecoverAll)
{
    setenv("VINTREL_SIMULATE_BAD",
        (std::to_string(photoOffset + 512) + "-" + std::to_string(photoOffset + 513)).c_str(), 1);
    const auto result = runWith({ "recover", path, folder / "ud" });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
        "KAMERA (FAT16): 4 gendannet, 1 med fejl, 0 mislykkedes → " + (folder / "ud/KAMERA (FAT16)") + "\n");
    EXPECT_EQ(readFile(folder / "ud/KAMERA (FAT16)/DCIM/Sommer ved søen.jpg"), photo);
}

TEST_F(Card, RecoverDeleted)
{
    const auto result = runWith({ "recover", path, folder / "--deleted", "--deleted" });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
        "KAMERA (FAT16): 1 gendannet, 0 med fejl, 0 mislykkedes → " + (folder / "--deleted/KAMERA (FAT16)") + "\n");
    EXPECT_EQ(readFile(folder / "--deleted/KAMERA (FAT16)/DCIM/Sommer ved søen.jpg"), photo);
    EXPECT_FALSE(std::filesystem::exists(folder / "--deleted/KAMERA (FAT16)/DCIM/IMG_0002.JPG"));
}

TEST_F(Card, Image)
{
    setenv("VINTREL_SIMULATE_BAD", "1000000-1000001", 1);
    const auto result = runWith({ "image", path, folder / "kopi.img" });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(result.out.ends_with("Færdig: 2.1 MB reddet, 512 bytes dårlige, 0 bytes tilbage\n")) << result.out;
    EXPECT_EQ(result.out.find("Færdig"), result.out.rfind("Færdig"));
    EXPECT_TRUE(std::filesystem::exists(folder / "kopi.img.map"));

    const auto refused = runWith({ "image", path, path });
    EXPECT_EQ(refused.status, 0);
    EXPECT_EQ(refused.out,
        ": 0 bytes reddet, 0 bytes dårlige, 0 bytes tilbage\n"
        "Kunne ikke oprette billedfilen: "
            + std::generic_category().message(EBUSY) + "\n");
}

TEST_F(Card, RecoverPrintsTenFailuresAtMost)
{
    FATImage image({ .type = FileSystemType::fat16 });
    for (int i = 0; i < 25; ++i)
        image.addFile(FATImage::root, { .name = "F" + std::to_string(10 + i) + "     TXT" }, bytesOf("x"));
    writeFile(path, image.bytes());
    writeFile(folder / "optaget", {});
    const auto whole = runWith({ "recover", path, folder / "optaget" });
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out,
        "Uden navn (FAT16): 0 gendannet, 0 med fejl, 25 mislykkedes → -\n   Kunne ikke oprette mappen "
            + (folder / "optaget/Uden navn (FAT16)") + ": Not a directory\n");

    // No file may have any content.
    const auto starved = runProgram("recover " + path + " " + (folder / "ud"), "trap '' XFSZ; ulimit -f 0; ");
    EXPECT_EQ(starved.status, 0);
    EXPECT_EQ(std::count(starved.out.begin(), starved.out.end(), '\n'), 11) << starved.out;
    EXPECT_TRUE(starved.out.starts_with("Uden navn (FAT16): 0 gendannet, 0 med fejl, 25 mislykkedes → "))
        << starved.out;
    EXPECT_NE(starved.out.find("\n   F10.TXT: kunne ikke skrive filen: File too large\n"), std::string::npos);
}

TEST_F(Card, DamagedSourcesAreToldAsNotes)
{
    writeFile(path, Bytes(100));
    const std::string note
        = "! Der blev ikke fundet nogen gyldig partitionstabel. Brug dyb scanning for at finde tabte partitioner.\n";
    EXPECT_EQ(runWith({ "scan", path }).out, "kort.img: 100 bytes, sektor 512 B\nPartitionering: Ukendt\n" + note);
    EXPECT_EQ(runWith({ "tree", path }).out, note);
    EXPECT_EQ(runWith({ "recover", path, folder / "ud" }).out, note);
    writeFile(path, {});
    EXPECT_EQ(runWith({ "scan", path }).out, "kort.img: 0 bytes, sektor 512 B\nPartitionering: Ukendt\n" + note);
}

TEST(CommandLine, UsageErrors)
{
    const std::vector<std::vector<std::string>> wrong { {}, { "" }, { "scan" }, { "Scan", "x" }, { "tree" }, { "deep" },
        { "recover", "x" }, { "image", "x" }, { "--help" } };
    for (const auto& arguments : wrong) {
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out.size(), 628u);
        EXPECT_TRUE(
            result.out.starts_with("vintrel-cli – datagendannelse fra kommandolinjen\n\n  vintrel-cli list   "));
        EXPECT_EQ(result.err, "");
    }
}

TEST(CommandLine, SourcesThatCannotBeOpened)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const std::pair<std::string, std::string> cases[] = {
        { folder / "mangler.img", "Fejl: Filen findes ikke: " + (folder / "mangler.img") + "\n" },
        { folder.path(), "Fejl: Kunne ikke åbne " + folder.path() + ": Is a directory\n" },
        { folder / "pipe", "Fejl: Kunne ikke åbne " + (folder / "pipe") + ": Illegal seek\n" },
        { "--deep", "Fejl: Filen findes ikke: --deep\n" },
        { "disk99", "Fejl: Filen findes ikke: /dev/disk99\n" },
    };
    for (const auto& [path, message] : cases) {
        const auto result = runWith({ "scan", path, "img" });
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(runProgram("scan " + (folder / "pipe")).status, 2) << "and nothing is waited for";
}

TEST(CommandLine, WhatIsNotBuiltSaysSo)
{
    for (const auto& arguments : std::vector<std::vector<std::string>> { { "list" }, { "deep", "x" },
             { "image", "x", "y" }, { "tree", "x", "--deep" }, { "recover", "x", "y", "--deep" } }) {
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_TRUE(result.err.starts_with("Fejl: ")) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(CommandLine, ParsesSimulatedRanges)
{
    const struct {
        const char* text;
        std::vector<ByteRange> expected;
    } cases[] = {
        { "5-5,9-3,abc,100-200", { { 100, 200 } } },
        { "1048576-1052672,2000000-2000512", { { 1048576, 1052672 }, { 2000000, 2000512 } } },
        { ",,1--2,", { { 1, 2 } } },
        { "1-x-3", { { 1, 3 } } },
        { "1-2-3", {} },
        { "+1-2, 3-4,0x5-6,-7", {} },
        { "0-18446744073709551615,0-18446744073709551616", { { 0, ~std::uint64_t { 0 } } } },
        { "", {} },
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(parseByteRanges(text), expected) << text;
}

TEST(CommandLine, LocaleDecidesTheSeparatorAndNothingElse)
{
    const TemporaryFolder folder;
    writeFile(folder / "a.img", Bytes(1'500'000));
    const struct {
        const char* environment;
        const char* shown;
    } cases[] = {
        { "LC_ALL=C", "1.5 MB" },
        { "LC_ALL=da_DK.UTF-8", "1,5 MB" },
        { "LC_ALL= LC_NUMERIC=da_DK LANG=C", "1,5 MB" },
        { "LC_ALL= LC_NUMERIC= LANG=da_DK.UTF-8", "1,5 MB" },
        { "LC_ALL=findes_IKKE", "1.5 MB" },
    };
    for (const auto& [environment, shown] : cases) {
        std::string out;
        EXPECT_EQ(runCommand(std::string(environment) + " '" VINTREL_PROGRAM "' scan " + (folder / "a.img"), &out), 0);
        EXPECT_NE(out.find(shown), std::string::npos) << environment << ": " << out;
    }
}
