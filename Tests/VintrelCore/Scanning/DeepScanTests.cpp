#include "Tests/Images/CarvedFile.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TimeZone.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <gtest/gtest.h>

namespace {

using Offsets = std::vector<std::uint64_t>;

/// A disk with one structure of every kind, each at its own sector.
class Disk : public DiskImage {
public:
    Disk()
    {
        bytes_.resize(64_KiB, 0xA5);
        write(4 * 512, volumeStart(FileSystemType::ntfs));
        write(8 * 512, volumeStart(FileSystemType::fat12));
        putRecord(16 * 512);
        write(17 * 512, bytesOf("FILE of another kind"));
        putLE(bytes_, 17 * 512 + 510, 0xAA55, 2);
        FATImage card({ .type = FileSystemType::fat16 });
        const auto folder = card.addFolder(FATImage::root, { .name = "DCIM       " });
        card.addFile(folder, { .name = "IMG_0010JPG" }, {});
        const auto entries
            = card.bytes().begin() + static_cast<std::ptrdiff_t>(card.offsetOf(folder));
        write(18 * 512, Bytes(entries, entries + 512));
        const auto header = ByteView(headerBlock_).sub(1'024, 64).span();
        write(1 * 512, header); // no room for a volume in front of it
        write(22 * 512, header);
        putLE(bytes_, 31 * 512 + 24, 1, 4);
        write(31 * 512 + 32, bytesOf("NXSB"));
        putLeaf(40 * 512);
        putLeaf(50 * 512); // not where a block can lie
        putLeaf(63 * 512); // where one can lie that counts from the container

        write(100 * 512, pngFile(1'400)); // three sectors
        write(101 * 512, jpegFile());
        write(103 * 512, bytesOf("%PDF-1.4\n%%EOF"));
        write(104 * 512, pngFile());
    }

    void putRecord(std::uint64_t at)
    {
        write(at, bytesOf("FILE"));
        putLE(bytes_, at + 4, 48, 2); // update sequence: its place, and its length in words
        putLE(bytes_, at + 6, 3, 2);
        putLE(bytes_, at + 20, 56, 2); // first attribute
        putLE(bytes_, at + 28, 1'024, 4);
    }

private:
    void putLeaf(std::uint64_t at)
    {
        std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at), 4'096, std::uint8_t { 0 });
        putLE(bytes_, at + 24, 3, 4);
        putLE(bytes_, at + 28, 14, 4);
        putLE(bytes_, at + 32, 2, 2);
        putLE(bytes_, at + 36, 1, 4);
        putLE(bytes_, at,
            APFSParser::fletcher64(ByteView(bytes_).sub(static_cast<std::int64_t>(at), 4'096)), 8);
    }

    const Bytes headerBlock_ = volumeStart(FileSystemType::hfsplus);
};

Offsets sectors(const Offsets& offsets)
{
    Offsets result;
    for (const auto offset : offsets)
        result.push_back(offset / 512);
    return result;
}

} // namespace

TEST(DeepScanner, FindsStructuresAtEverySector)
{
    const auto source = Disk().source();
    const auto found = DeepScanner(*source, { .carve = false }).run(nullptr);
    ASSERT_EQ(found.boots.size(), 2u);
    EXPECT_EQ(found.boots[0].offset, 4u * 512);
    EXPECT_EQ(found.boots[0].type, FileSystemType::ntfs);
    EXPECT_EQ(found.boots[1].offset, 8u * 512);
    EXPECT_TRUE(
        std::ranges::equal(found.boots[1].sector, source->read(8 * 512, 512, ReadMode::fast)));
    EXPECT_EQ(sectors(found.mftRecords), Offsets { 16 });
    EXPECT_EQ(sectors(found.fatDirSectors), Offsets { 18 });
    EXPECT_EQ(sectors(found.hfsHeaders), Offsets { 20 });
    EXPECT_EQ(sectors(found.nxsb), Offsets { 31 });
    EXPECT_EQ(sectors(found.apfsLeafNodes), (Offsets { 40, 63 }));
    EXPECT_TRUE(found.carved.empty());
    EXPECT_TRUE(found.completed);
    EXPECT_EQ(found.scannedUpTo, source->size());
}

TEST(DeepScanner, SkipsWhatLiesInsideAFileOfKnownSize)
{
    const auto source = Disk().source();
    const auto found = DeepScanner(*source, { .findVolumes = false }).run(nullptr);
    std::vector<std::pair<std::string, std::uint64_t>> files;
    for (const auto& file : found.carved)
        files.emplace_back(file.ext, file.offset / 512);
    EXPECT_EQ(files,
        (std::vector<std::pair<std::string, std::uint64_t>> {
            { "png", 100 }, { "pdf", 103 }, { "png", 104 } }));
    EXPECT_TRUE(found.boots.empty() && found.mftRecords.empty() && found.fatDirSectors.empty());
}

TEST(DeepScanner, LosesNothingBesideABadSector)
{
    const auto source = Disk().source();
    source->addSimulatedBadRange({ 15 * 512, 15 * 512 + 1 });
    source->addSimulatedBadRange({ 99 * 512, 99 * 512 + 1 });
    DeepScanStats last;
    const auto found
        = DeepScanner(*source).run(nullptr, [&](const DeepScanStats& stats) { last = stats; });
    EXPECT_EQ(sectors(found.mftRecords), Offsets { 16 });
    EXPECT_EQ(found.carved.size(), 3u);
    EXPECT_EQ(last.badSectors, 2u);
    EXPECT_EQ(last.position, source->size());
    EXPECT_EQ(last.total, source->size());
    EXPECT_EQ(last.bootSectors, 4u);
    EXPECT_EQ(last.mftRecords, 1u);
    EXPECT_EQ(last.filesFound, 3u);
    EXPECT_EQ(
        last.byExtension, (std::map<std::string, std::uint64_t> { { "pdf", 1 }, { "png", 2 } }));
}

TEST(DeepScanner, EndsEarlyWhenCancelledAndAtOnceWithoutContent)
{
    WorkProgress progress;
    progress.cancel();
    const auto source = Disk().source();
    const auto cancelled = DeepScanner(*source).run(&progress);
    EXPECT_FALSE(cancelled.completed);
    EXPECT_EQ(cancelled.scannedUpTo, 0u);

    const auto empty = makeSource({});
    EXPECT_TRUE(DeepScanner(*empty).run(nullptr).completed);

    // A file may begin in the last, incomplete sector; what only seems to follow is no part of it.
    Content end = Content()
                      .upTo(4_MiB - 512)
                      .add(pngFile(20))
                      .upTo(4_MiB)
                      .text("BM")
                      .le(64, 4)
                      .zeros(4)
                      .le(54, 4)
                      .le(40, 4)
                      .le(1, 4)
                      .upTo(4_MiB + 64);
    const auto found = DeepScanner(*end.source()).run(nullptr);
    ASSERT_EQ(found.carved.size(), 2u);
    EXPECT_EQ(found.carved[1].size, 64u);
}

TEST(DeepScanner, PresentsCarvedFilesAsAVolume)
{
    const TimeZone zone("Europe/Copenhagen");
    const Date taken { std::chrono::seconds { 1'715'947'402 } };
    const auto source = makeSource(Bytes(1'024));
    const std::vector<CarvedFile> files {
        { 1'048'576, 5'000, "jpg", true, taken },
        { 512, 700, "jpg", true, {} },
        { 5'120, 900, "pdf", false, {} },
    };
    const auto volume = DeepScanner::carvedVolume(*source, files);
    EXPECT_EQ(volume->title(), "Filer fundet via signatur (Signaturer)");
    EXPECT_EQ(volume->origin, "Dyb scanning");
    EXPECT_EQ(volume->size, 1'024u);
    ASSERT_EQ(volume->notes.size(), 1u);

    std::vector<std::string> lines;
    for (const auto* file : volume->root->allFiles()) {
        EXPECT_EQ(file->status, EntryStatus::carved);
        lines.push_back(file->path() + " " + std::string(label(file->recoverability)) + " "
            + file->note.value_or("-"));
    }
    EXPECT_EQ(lines,
        (std::vector<std::string> { "/JPG/2024-05-17 14.03.22 f2048.jpg God -", "/JPG/f1.jpg God -",
            "/PDF/f10.pdf Ukendt Størrelsen er anslået" }));
    const auto* photo = volume->root->allFiles()[0];
    EXPECT_EQ(photo->modified, taken);
    EXPECT_EQ(photo->created, std::nullopt);
    EXPECT_EQ(photo->data, FileData(ExtentList { { 1'048'576, 5'000 } }));

    const auto nothing = DeepScanner::carvedVolume(*source, {});
    EXPECT_TRUE(nothing->root->children().empty());
}
