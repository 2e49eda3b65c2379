// The order of a deep scan, and what becomes of it when it is cancelled.

#include "Tests/Images/CarvedFile.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/FullScan.h"
#include "VintrelCore/Scanning/SweepProgress.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;

namespace {

/// A folder in a folder in the root, each with a file.
FATImage cardWithFolders()
{
    FATImage card({ .type = FileSystemType::fat16, .label = "KORT       " });
    const auto outer = card.addFolder(FATImage::root, { .name = "YDRE       " });
    const auto inner = card.addFolder(outer, { .name = "INDRE      " });
    card.addFile(outer, { .name = "A       JPG" }, patternBytes(700));
    card.addFile(inner, { .name = "B       JPG" }, patternBytes(900, 2));
    return card;
}

/// The titles of the volumes, each with the paths of its files.
std::string listing(const VolumeList& volumes)
{
    std::string text;
    for (const auto& volume : volumes) {
        text += volume->title() + ":";
        for (const auto* file : volume->root->allFiles())
            text += " " + file->path();
        text += "\n";
    }
    return text;
}

} // namespace

TEST(FullScan, AddsWhatOnlyASweepFinds)
{
    auto card = cardWithFolders();
    const auto png = pngFile();
    card.write(card.bytes().size() - 1'024, png);
    const auto name = "f" + std::to_string(card.bytes().size() / 512 - 2) + ".png";
    const std::string carved = "Filer fundet via signatur (Signaturer): /PNG/" + name + "\n";

    auto withoutRoot = card;
    withoutRoot.write(card.entryOffset(FATImage::root, 0), Bytes(512)); // label and folder
    auto withoutTables = card;
    withoutTables.write(0, Bytes(card.offsetOf(2)));

    EXPECT_EQ(listing(FullScan::run(*card.source(), std::nullopt, nullptr)),
        "KORT (FAT16): /YDRE/INDRE/B.JPG /YDRE/A.JPG\n");
    const DeepScanOptions deep;
    EXPECT_EQ(listing(FullScan::run(*card.source(), deep, nullptr)),
        "KORT (FAT16): /YDRE/INDRE/B.JPG /YDRE/A.JPG\n" + carved);
    EXPECT_EQ(listing(FullScan::run(*withoutRoot.source(), deep, nullptr)),
        "KORT (FAT16): /$Tabte mappefragmenter/INDRE/B.JPG /$Tabte mappefragmenter/A.JPG\n"
            + carved);
    const auto rebuilt = listing(FullScan::run(*withoutTables.source(), deep, nullptr));
    EXPECT_TRUE(rebuilt.ends_with("INDRE/B.JPG /$Tabte mappefragmenter/A.JPG\n" + carved))
        << rebuilt;
}

TEST(FullScan, TriesWhereAPartitionBeginsThatNothingWasRecognisedIn)
{
    // A volume of which a folder, its file and its index are left.
    constexpr std::uint64_t firstSector = 5'003;
    constexpr std::uint64_t clusterSize = 4'096;
    NTFSImage image({ .clusterSize = clusterSize, .clusters = 400, .records = 128 });
    image.bytes().assign(image.bytes().size(), 0);
    constexpr std::uint64_t folder = 24;
    image.put(folder,
        { .isDirectory = true,
            .attributes = { NTFSImage::fileName({ 5, 5 }, u"mappe"),
                NTFSImage::nonResident(0xA0, { .runs = { { 100, 1 } }, .size = clusterSize }) } });
    image.put(25,
        { .attributes = { NTFSImage::fileName({ folder, 1 }, u"fil.dat"),
              NTFSImage::data(NTFSImage::Data { .runs = { { 101, 1 } }, .size = 3'000 }) } });
    image.write(100 * clusterSize, NTFSImage::indexBlock({ folder, 1 }));

    auto disk = joined({ Bytes(firstSector * 512), image.bytes() });
    putLE(disk, 446 + 4, 0x07, 1); // the type, where the partition begins, and its sectors
    putLE(disk, 446 + 8, firstSector, 4);
    putLE(disk, 446 + 12, image.bytes().size() / 512, 4);
    putLE(disk, 510, 0xAA55, 2);
    const auto volumes = FullScan::run(*makeSource(disk), DeepScanOptions {}, nullptr);
    ASSERT_EQ(listing(volumes), "Uden navn (NTFS): /mappe/fil.dat\n");
    EXPECT_EQ(volumes[0]->offset, firstSector * 512);
}

TEST(FullScan, EndsSoonAfterItIsCancelled)
{
    // In the middle of the sweep, by another thread.
    TemporaryFolder folder;
    const auto path = folder / "stor.img";
    writeFile(path, {});
    std::filesystem::resize_file(path, 2'048_MiB);
    for (std::fstream file(path); file.good() && file.tellp() < std::streamoff(2'044_MiB);)
        file.seekp(4'194'303, std::ios::cur).put(' '); // a hole is passed over at once
    const auto source = SourceOpener::openImage(path);
    WorkProgress progress;
    DeepScanResult finds;
    std::thread canceller([&] {
        while (source->bytesRead() < 64_MiB)
            std::this_thread::sleep_for(1ms);
        progress.cancel();
    });
    FullScan::run(*source, DeepScanOptions(), &progress,
        { .quickScanDone = {}, .sweepDone = [&](const auto& found) { finds = found; } });
    canceller.join();
    EXPECT_FALSE(finds.completed);
    EXPECT_LT(finds.scannedUpTo, source->size());

    // Behind the sweep: nothing is rebuilt any more. What the sweep found itself stays.
    auto card = cardWithFolders();
    card.write(0, Bytes(card.offsetOf(2)));
    card.write(card.bytes().size() - 1'024, pngFile());
    WorkProgress impatient;
    const auto volumes = FullScan::run(*card.source(), DeepScanOptions(), &impatient,
        { .quickScanDone = {}, .sweepDone = [&](const auto&) { impatient.cancel(); } });
    ASSERT_EQ(volumes.size(), 1u);
    EXPECT_EQ(volumes.front()->type, FileSystemType::carved);
}

TEST(SweepProgress, TellsTheRateOfTheLastIntervalAndNotTooOften)
{
    const auto source = makeSource(Bytes(10'000));
    std::vector<DeepScanStats> told;
    const std::function<void(const DeepScanStats&)> onUpdate
        = [&](const DeepScanStats& stats) { told.push_back(stats); };
    const SweepProgress::Clock::time_point start {};
    SweepProgress progress(*source, onUpdate, start);
    const DeepScanResult nothing;
    for (const auto& [time, position] : { std::pair(200ms, 100u), { 400ms, 200u },
             { 1000ms, 1'000u }, { 1200ms, 5'000u }, { 2000ms, 6'000u } })
        progress.report(nothing, position, start + time);
    progress.report(nothing, 10'000, start + 2100ms, true);
    ASSERT_EQ(told.size(), 4u);
    EXPECT_EQ(told[0].position, 200u);
    EXPECT_EQ(told[0].rate, 0) << "in the first second there is none";
    EXPECT_DOUBLE_EQ(told[1].rate, 1'000);
    EXPECT_DOUBLE_EQ(told[2].rate, 5'000);
    EXPECT_EQ(told[3].position, told[3].total);
    EXPECT_DOUBLE_EQ(told[3].elapsed, 2.1);
}
