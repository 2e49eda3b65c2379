#include "Tests/Images/CarvedFile.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Support/ChildProgram.h"
#include "Tests/Support/TestSource.h"
#include "Tests/VintrelCLI/Card.h"
#include "VintrelCLI/CommandLine.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <CVintrel/Devices.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>
#include <streambuf>

namespace {

/// What the real program prints, for what only a process of its own shows.
std::string runProgram(
    const std::string& preparation, const std::string& arguments, int expectedStatus = 0)
{
    std::string out;
    EXPECT_EQ(runCommand(preparation + " timeout 20 '" VINTREL_PROGRAM "' " + arguments, &out),
        expectedStatus)
        << out;
    return out;
}

} // namespace

TEST_F(Card, IsListedByScanAndTree)
{
    const auto scan = runWith({ "scan", path });
    EXPECT_EQ(scan.status, 0);
    EXPECT_EQ(scan.err, "");
    EXPECT_EQ(scan.out,
        "kort.img: 2.1 MB, sektor 512 B\n"
        "Partitionering: Ingen partitionstabel\n"
        "  #1 Hele disken @ 0 2.1 MB FAT16\n"
        "  KAMERA (FAT16): 5 filer, 1 mapper, 1 slettede, 8 KB\n");
    const auto tree = runWith({ "tree", path });
    EXPECT_EQ(tree.status, 0);
    EXPECT_EQ(tree.out,
        "KAMERA (FAT16) [Hele disken] @ 0\n"
        "  DCIM/\n"
        "    IMG_0002.JPG  3 KB  2025-10-03 12:00:00\n"
        "    IMG_0010.JPG  2 KB  2025-10-03 12:00:00\n"
        "    Sommer ved søen.jpg  3 KB  2025-10-03 12:00:00  [Slettet, God]\n"
        "  \\x1B[2J\\u202Egpj.exe  1 byte  2025-10-03 12:00:00\n"
        "  KNAEKKET.TXT  9 bytes  2025-10-03 12:00:00  Ugyldig startklynge\n");
    // The locale decides the decimal separator and nothing else.
    for (const char* danish : { "LC_ALL=da_DK.UTF-8", "LC_ALL= LC_NUMERIC=da_DK LANG=C" })
        EXPECT_NE(
            runProgram(danish, "scan " + path).find(": 2,1 MB, sektor 512 B\n"), std::string::npos)
            << danish;
    EXPECT_EQ(runProgram("LC_ALL=findes_IKKE", "scan " + path), scan.out);
}

TEST_F(Card, IsRecoveredWholeOrOnlyWhatWasDeleted)
{
    const auto bad = std::to_string(photoOffset + 512) + "-" + std::to_string(photoOffset + 513);
    setenv("VINTREL_SIMULATE_BAD", bad.c_str(), 1);
    const auto all = runWith({ "recover", path, folder / "ud" });
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.out,
        "KAMERA (FAT16): 4 gendannet, 1 med fejl, 0 mislykkedes → " + (folder / "ud/KAMERA (FAT16)")
            + "\n");

    const auto deleted = folder / "--deleted/KAMERA (FAT16)";
    EXPECT_EQ(runWith({ "recover", path, folder / "--deleted", "--deleted" }).out,
        "KAMERA (FAT16): 1 gendannet, 0 med fejl, 0 mislykkedes → " + deleted + "\n");
    EXPECT_EQ(readFile(deleted + "/DCIM/Sommer ved søen.jpg"), photo);
    EXPECT_FALSE(std::filesystem::exists(deleted + "/DCIM/IMG_0002.JPG"));
}

TEST_F(Card, IsSearchedForWhatNoVolumeHolds)
{
    auto bytes = readFile(path);
    const auto png = pngFile();
    std::copy(png.begin(), png.end(), bytes.end() - 1'024); // in free space
    writeFile(path, bytes);
    const std::string summary = "Dyb scanning: 1 signaturfund, 1 bootsektorer, 0 MFT-poster, 2 "
                                "FAT-mappesektorer, 0 APFS-knuder\n";
    const auto deep = runWith({ "deep", path });
    EXPECT_EQ(deep.status, 0);
    EXPECT_EQ(deep.out,
        summary
            + "KAMERA (FAT16) [Hele disken] @ 0: 5 filer, 1 slettede/fundne\n"
              "Filer fundet via signatur (Signaturer) [Dyb scanning] @ 0: 1 filer, 1 "
              "slettede/fundne\n");
    const auto without = runWith({ "deep", path, "--no-carve" }).out;
    EXPECT_TRUE(without.starts_with("Dyb scanning: 0 signaturfund, 1 bootsektorer, ")) << without;
    EXPECT_EQ(without.find("Signaturer"), std::string::npos);
    EXPECT_NE(
        runWith({ "tree", path, "--deep" }).out.find("\n  PNG/  [Signaturfund"), std::string::npos);
    EXPECT_EQ(runWith({ "deep", "--no-carve" }).status, 2)
        << "an option in the source's place is a source";

    const auto name = "f" + std::to_string(bytes.size() / 512 - 2) + ".png";
    const auto recovered = runWith({ "recover", path, folder / "ud", "--deep", "--deleted" });
    EXPECT_EQ(recovered.status, 0);
    EXPECT_EQ(readFile(folder / ("ud/Filer fundet via signatur (Signaturer)/PNG/" + name)), png);
}

TEST_F(Card, IsImagedWithAMapfileBesideTheCopy)
{
    setenv("VINTREL_SIMULATE_BAD", "1000000-1000001", 1);
    const auto result = runWith({ "image", path, folder / "kopi.img" });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
        "Advarsel: VINTREL_SIMULATE_BAD er sat. Det, den nævner, regnes som ulæseligt.\n");
    EXPECT_TRUE(result.out.ends_with("Færdig: 2.1 MB reddet, 512 bytes dårlige, 0 bytes tilbage\n"))
        << result.out;
    EXPECT_TRUE(std::filesystem::exists(folder / "kopi.img.map"));

    EXPECT_NE(runWith({ "image", path, path }).err.find("\nBilledet skal ligge i en mappe"),
        std::string::npos);
    EXPECT_EQ(runWith({ "image", path, path }).out,
        ": 0 bytes reddet, 0 bytes dårlige, 0 bytes tilbage\n"
        "Kunne ikke oprette billedfilen: "
            + SystemError(EBUSY).message() + "\n");
}

TEST_F(Card, IsImagedWithoutTheLinesThatAreForAClosedOutput)
{
    // Otherwise the source becomes the standard input, and the image the output.
    runProgram("<&- >&- 2>&-", "image " + path + " " + (folder / "kopi.img"));
    EXPECT_TRUE(readFile(folder / "kopi.img") == readFile(path));
}

TEST_F(Card, RecoverGoesOnAfterFailuresAndPrintsTenOfThem)
{
    FATImage image({ .type = FileSystemType::fat16 });
    for (int i = 10; i < 35; ++i)
        image.addFile(
            FATImage::root, { .name = "F" + std::to_string(i) + "     TXT" }, patternBytes(9'000));
    image.addFile(FATImage::root, { .name = "LILLE   TXT" }, bytesOf("x"));
    writeFile(path, image.bytes());
    writeFile(folder / "optaget", {});
    EXPECT_EQ(runWith({ "recover", path, folder / "optaget" }).out,
        "Uden navn (FAT16): 0 gendannet, 0 med fejl, 26 mislykkedes → -\n   Kunne ikke oprette "
        "mappen "
            + (folder / "optaget/Uden navn (FAT16)") + ": Det er ikke en mappe\n");

    // Files may grow to 8 KiB or less. What cannot be written whole is removed again.
    const auto out = runProgram("ulimit -f 8;", "recover " + path + " " + (folder / "ud"));
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 12) << out; // the last one is advice
    EXPECT_TRUE(out.starts_with("Uden navn (FAT16): 1 gendannet, 0 med fejl, 25 mislykkedes → "))
        << out;
    EXPECT_NE(
        out.find("\n   F10.TXT: kunne ikke skrive filen: Filen er for stor\n"), std::string::npos);
    EXPECT_EQ(readFile(folder / "ud/Uden navn (FAT16)/LILLE.TXT"), bytesOf("x"));
    EXPECT_FALSE(std::filesystem::exists(folder / "ud/Uden navn (FAT16)/F10.TXT"));
    const auto list = readFile(folder / "ud/Uden navn (FAT16)/Fejl.txt");
    EXPECT_EQ(std::ranges::count(list, '\n'), 25);
    EXPECT_TRUE(std::string(list.begin(), list.end())
                    .ends_with("F34.TXT: kunne ikke skrive filen: Filen er for stor\n"));
}

TEST_F(Card, GoesOnCopyingWhenNobodyReadsWhatItPrints)
{
    const std::string lost = "Advarsel: ikke alt kunne skrives ud: ";
    const auto runIntoClosedPipe = [&](const std::string& arguments) {
        return runProgram("{ sleep 0.2;", arguments + "; echo \"=$?\" >&2; } | :");
    };
    EXPECT_EQ(runIntoClosedPipe("scan " + path), "=141\n") << "ended by SIGPIPE";
    EXPECT_EQ(runIntoClosedPipe("recover " + path + " " + (folder / "ud")),
        lost + SystemError(EPIPE).message() + "\n=0\n");
    EXPECT_EQ(readFile(folder / "ud/KAMERA (FAT16)/DCIM/IMG_0002.JPG"), photo);
    EXPECT_EQ(runIntoClosedPipe("image " + path + " " + (folder / "kopi.img")),
        lost + SystemError(EPIPE).message() + "\n=0\n");
    EXPECT_EQ(readFile(folder / "kopi.img"), readFile(path));
    if (std::filesystem::exists("/dev/full")) {
        EXPECT_EQ(runProgram("", "tree " + path + " >/dev/full"),
            lost + SystemError(ENOSPC).message() + "\n");
    }
}

TEST_F(Card, BeginsNoFurtherVolumeOnAFullDestination)
{
    auto bytes = readFile(path);
    const auto png = pngFile();
    std::copy(png.begin(), png.end(), bytes.end() - 1'024); // a volume of what was carved
    writeFile(path, bytes);
    std::filesystem::create_directory(folder / "ud");
    if (runCommand("mount -t tmpfs -o nr_inodes=6 none " + (folder / "ud")) != 0)
        GTEST_SKIP() << "needs to mount a small file system";
    const auto result = runWith({ "recover", path, folder / "ud", "--deep" });
    EXPECT_EQ(runCommand("umount " + (folder / "ud")), 0);
    EXPECT_TRUE(result.out.ends_with("\n   Destinationen er fuld – gendannelsen blev stoppet.\n"))
        << result.out;
    EXPECT_EQ(result.out.find("Signaturer"), std::string::npos) << result.out;
}

TEST_F(Card, TellsThatMemoryRanOut)
{
    struct NoMemory : std::streambuf {
        std::streamsize xsputn(const char* /*text*/, std::streamsize /*count*/) override
        {
            throw std::bad_alloc();
        }
    } buffer;
    std::ostream out(&buffer);
    out.exceptions(std::ios::badbit);
    std::ostringstream err;
    const std::string arguments[] = { "recover", path, folder / "ud" };
    EXPECT_EQ(run(arguments, out, err), 3);
    EXPECT_EQ(err.str(),
        "Fejl: Der er ikke hukommelse nok. Resultatet er ufuldstændigt. Gendannelsen nåede 5 "
        "filer.\n");
    EXPECT_EQ(readFile(folder / "ud/KAMERA (FAT16)/DCIM/IMG_0002.JPG"), photo);
}

TEST_F(Card, DamagedSourcesAreToldAsNotes)
{
    writeFile(path, {});
    const auto tree = runWith({ "tree", path }).out;
    EXPECT_TRUE(tree.starts_with("! Der blev ikke fundet nogen gyldig partitionstabel. ")) << tree;
    EXPECT_EQ(runWith({ "scan", path }).out,
        "kort.img: 0 bytes, sektor 512 B\nPartitionering: Ukendt\n" + tree);
}

TEST_F(Card, HolesOfAnImageCountAsUnreadable)
{
    const auto mapfile = [&](std::uint64_t size) {
        RangeMap map(size);
        map.set(0, size, RangeMap::Status::finished);
        map.set(photoOffset + 512, 512, RangeMap::Status::bad);
        map.set(photoOffset + 1'024, 100, RangeMap::Status::nonTried);
        EXPECT_FALSE(map.write(path + ".map", 0, 1));
    };
    const auto size = std::filesystem::file_size(path);
    mapfile(size);
    const auto damaged = runWith({ "recover", path, folder / "ud" });
    EXPECT_NE(damaged.out.find(": 4 gendannet, 1 med fejl, "), std::string::npos) << damaged.out;
    EXPECT_EQ(damaged.err,
        "Advarsel: kort.img er et ufuldstændigt diskbillede. Efter kort.img.map mangler 612 bytes "
        "af "
        "2.1 MB. Det regnes som ulæseligt.\n");
    // Whole, or of another size, a mapfile says nothing.
    mapfile(size + 512);
    EXPECT_EQ(runWith({ "scan", path }).err, "");
    RangeMap whole(size);
    whole.set(0, size, RangeMap::Status::finished);
    EXPECT_FALSE(whole.write(path + ".map", 0, 1));
    EXPECT_EQ(runWith({ "scan", path }).err, "");
}

TEST_F(Card, IsShownOnPagesThatAreAskedFor)
{
    const auto damage = std::to_string(photoOffset) + "-" + std::to_string(photoOffset + 1);
    setenv("VINTREL_SIMULATE_BAD", damage.c_str(), 1);
    const auto image = folder / "kopi.img";
    const auto imaged = runWith({ "image", path, image, "--page" });
    EXPECT_TRUE(imaged.out.ends_with("tilbage\nSide: " + image + ".html\n")) << imaged.out;
    unsetenv("VINTREL_SIMULATE_BAD");
    const auto recovered = runWith({ "recover", image, folder / "ud", "--page" });
    const auto pagePath = folder / "ud/KAMERA (FAT16)/Gendannet.html";
    EXPECT_TRUE(recovered.out.ends_with("\n   Side: " + pagePath + "\n")) << recovered.out;
    for (const auto& file : { image + ".html", pagePath }) {
        const auto bytes = readFile(file);
        EXPECT_NE(std::string(bytes.begin(), bytes.end()).find("Ulæselig</th><td>512 bytes</td>"),
            std::string::npos)
            << file;
    }
    // Where no image could be made there is nothing to show.
    EXPECT_FALSE(runWith({ "image", path, path, "--page" }).out.ends_with(".html\n"));
    EXPECT_FALSE(std::filesystem::exists(path + ".html"));
}

TEST_F(Card, PointsToTheDeepScanWhereNothingCanBeRead)
{
    writeFile(path, Bytes(1_MiB));
    const auto hint
        = "Der blev ikke fundet noget filsystem, der kan læses. En dyb scanning (--deep) "
          "kan finde mere.\n";
    EXPECT_EQ(runWith({ "tree", path }).err, hint);
    EXPECT_EQ(runWith({ "recover", path, folder / "ud" }).err, hint);
    EXPECT_TRUE(runWith({ "scan", path })
                    .err.ends_with(" »vintrel-cli deep« leder videre på hele kilden.\n"));
    EXPECT_EQ(runWith({ "tree", path, "--deep" }).err, "");
}

TEST_F(Card, DoesNotCallRecoveredWhatDidNotReachTheDisk)
{
    auto environment = faultyDisk(path, "");
    if (environment.empty())
        GTEST_SKIP() << "there is no failing disk for this system";
    environment.emplace_back("FAULTY_SYNC=1");
    ChildProgram program({ "recover", path, folder / "ud" }, environment, folder / "output");
    EXPECT_EQ(program.wait(), 0);
    const auto recovered = folder / "ud/KAMERA (FAT16)";
    EXPECT_EQ(program.printed(),
        "KAMERA (FAT16): 0 gendannet, 0 med fejl, 5 mislykkedes → " + recovered + "\n   "
            + recovered + ": kunne ikke skrive alt til disken: " + SystemError(EIO).message()
            + "\nPrøv det, der mislykkedes, igen med en mappe på en anden disk.\n");
}

TEST(CommandLine, TellsItsVersionAndItsOptions)
{
    const auto version = runWith({ "--version" });
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("vintrel-cli ") && version.out.ends_with("\n"));
    const auto help = runWith({ "--help" });
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with(runWith({}).out));
    for (const char* option : { "--deep", "--no-carve", "--deleted", "--only", "--json" })
        EXPECT_NE(help.out.find(std::string("\n  ") + option), std::string::npos) << option;
}

TEST(CommandLine, RefusesWhatItCannotUnderstandOrOpen)
{
    for (const auto& arguments : std::vector<std::vector<std::string>> { {}, { "" }, { "scan" },
             { "Scan", "x" }, { "recover", "x" }, { "image", "x" }, { "-h" } }) {
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out.size(), 628u);
        EXPECT_TRUE(result.out.starts_with(
            "vintrel-cli – datagendannelse fra kommandolinjen\n\n  vintrel-cli list   "));
        EXPECT_EQ(result.err, "");
    }
    const std::string checkName
        = "Se efter, om navnet er skrevet rigtigt. »vintrel-cli list« viser diskene.\n";
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        { { "scan", "mangler.img" }, "Fejl: Filen findes ikke: mangler.img\n" + checkName },
        { { "tree", "/" },
            "Fejl: Kunne ikke åbne /: Det er en mappe\nGiv en billedfil eller en disk som kilde. "
            "»vintrel-cli list« viser diskene.\n" },
        { { "scan", "disk99" }, "Fejl: Filen findes ikke: disk99\n" + checkName },
        { { "scan", "\x1B]0;x\a.img" },
            "Fejl: Filen findes ikke: \\x1B]0;x\\x07.img\n" + checkName },
    };
    for (const auto& [arguments, message] : refused) {
        const auto result = runWith(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, "");
    }
}

TEST(CommandLine, ParsesSimulatedRanges)
{
    EXPECT_EQ(
        parseByteRanges(",5-5,9-3,abc,1-2-3,0x5-6, 3-4,-7,100--200,0-18446744073709551616,1-x-3"),
        (std::vector<ByteRange> { { 100, 200 }, { 1, 3 } }));
}
