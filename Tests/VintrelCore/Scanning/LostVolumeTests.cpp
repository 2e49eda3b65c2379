// Volumes that no table names any more: built or made by other systems' tools, and then damaged as
// users do.

#include "Tests/Images/APFSImage.h"
#include "Tests/Images/CarvedFile.h"
#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Images/PartitionImage.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Scanning/DeepScan.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>

namespace {

using Files = std::map<std::string, Bytes>; // by path

constexpr std::uint64_t oddPlace = 63 * 512; // where partitions of old disks begin

/// A disk that was scanned as the user asked for it: its tables first, then all of it.
struct ScannedDisk {
    std::unique_ptr<DiskSource> source;
    VolumeList known = QuickScanner::run(*source, nullptr).volumes;
    DeepScanResult sweep = DeepScanner(*source).run(nullptr);
    VolumeList lost = DeepScanner::buildVolumes(*source, sweep, known, nullptr);

    /// "type @ offset, number of files" of every volume.
    static std::string listing(const VolumeList& volumes)
    {
        std::string text;
        for (const auto& volume : volumes)
            text += std::string(displayName(volume->type)) + " @ " + std::to_string(volume->offset)
                + ", " + std::to_string(volume->root->totals().files) + "; ";
        return text;
    }

    Files files(const Volume& volume) const
    {
        Files found;
        for (const auto* node : volume.root->allFiles())
            found.emplace(node->path(), FileReader::readPrefix(*node, *source, 2_MiB));
        return found;
    }
};

ScannedDisk scan(const Bytes& bytes) { return { .source = makeSource(bytes) }; }

/// How many of the files are found by path and bytes.
std::size_t countRight(const Files& files, const Files& found)
{
    return static_cast<std::size_t>(std::ranges::count_if(files, [&](const auto& file) {
        return found.contains(file.first) && found.at(file.first) == file.second;
    }));
}

Bytes::iterator in(Bytes& bytes, std::uint64_t at)
{
    return bytes.begin() + static_cast<std::ptrdiff_t>(at);
}

void write(Bytes& bytes, std::uint64_t at, const Bytes& more)
{
    bytes.resize(std::max<std::size_t>(bytes.size(), at + more.size()));
    std::ranges::copy(more, in(bytes, at));
}

void copyWithin(Bytes& bytes, std::uint64_t from, std::uint64_t to, std::size_t count)
{
    write(bytes, to, { in(bytes, from), in(bytes, from + count) });
}

void erase(Bytes& bytes, std::uint64_t from, std::size_t count)
{
    write(bytes, from, Bytes(count));
}

/// A volume somewhere on a disk, with a little behind it.
Bytes diskOf(const Bytes& volume, std::uint64_t offset = oddPlace)
{
    Bytes disk(offset + volume.size() + 64_KiB);
    write(disk, offset, volume);
    return disk;
}

const Bytes content = patternBytes(3000);

/// With so many entries in the root that it goes on where a copy of the boot sector, read as the
/// boot sector itself, would have it.
Bytes fat32Volume()
{
    FATImage image({ .type = FileSystemType::fat32, .sectorsPerCluster = 8 });
    image.addFile(FATImage::root, { .name = "FIL     BIN" }, content);
    for (int i = 0; i < 115; ++i)
        image.addEntry(FATImage::root, { .name = "TOM" + std::to_string(100 + i) + "  TXT" });
    putLE(image.bytes(), 50, 6, 2);
    copyWithin(image.bytes(), 0, 6 * 512, 512);
    return image.bytes();
}

Bytes exfatVolume(int sectorShift = 9)
{
    ExFATImage image({ .sectorShift = sectorShift });
    image.addFile(image.root(), { .name = u"fil.bin" }, content);
    copyWithin(image.bytes(), 0, std::uint64_t { 12 } << sectorShift, 512);
    return image.bytes();
}

/// A volume of 400 blocks with its alternate header, `rest` bytes longer than its blocks.
Bytes hfsPlusVolume(std::uint64_t blockSize = 512, std::uint64_t rest = 0)
{
    HFSPlusImage image;
    image.setLeaf(2,
        { { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true },
            { .parent = 2,
                .name = u"fil.bin",
                .id = 20,
                .size = content.size(),
                .runs = { { 100, 6 } } } });
    image.chain({ 2 });
    auto bytes = image.bytes();
    write(bytes, 100 * blockSize, content);
    // The header counts in other blocks than the builder; everything lies where it did.
    const auto divide = [&](std::uint64_t at) {
        putBE(bytes, at, ByteView(bytes).u32be(static_cast<std::int64_t>(at)) * 512 / blockSize, 4);
    };
    putBE(bytes, 1024 + 40, blockSize, 4);
    divide(1024 + 44);
    for (const std::uint64_t fork : { 1024 + 192u, 1024 + 272u })
        for (const std::uint64_t field : { 12u, 16u, 20u })
            divide(fork + field);
    bytes.resize(bytes.size() + rest);
    copyWithin(bytes, 1024, 300 * 512, 512); // as journals are full of
    copyWithin(bytes, 1024, bytes.size() - 1024, 512);
    return bytes;
}

APFSImage apfsImage()
{
    APFSImage image({});
    const auto block = image.store(content);
    image.commit({ { image.file(
        { .id = 20, .parent = 2, .name = "fil.bin", .size = content.size() }, block) } });
    return image;
}

const NTFSImage::Options roomy { .clusterSize = 4096, .clusters = 200 };

/// An NTFS volume like those that systems make: with the mirror of the first records, and the
/// backup of the boot sector behind its end. Folders have indices.
struct NTFSVolume {
    NTFSImage image;
    Files files {};
    std::uint64_t next = 24;

    explicit NTFSVolume(const NTFSImage::Options& options = roomy)
        : image(options)
    {
        image.put(1,
            { .attributes = { NTFSImage::fileName(NTFSImage::root, u"$MFTMirr", 3),
                  NTFSImage::data(NTFSImage::Data { .runs = { { image.mirrorLCN(), 1 } },
                      .size = 4096,
                      .allocated = options.clusterSize }) } });
        const auto index = NTFSImage::indexBlock({ 20, 1 });
        image.put(20,
            { .isDirectory = true,
                .attributes = { NTFSImage::fileName(NTFSImage::root, u"mappe"),
                    NTFSImage::nonResident(0xA0, { .runs = image.store(index), .size = 4096 }) } });
        add(u"fil.bin", "/mappe/fil.bin", content);
        add(u"lille.txt", "/mappe/lille.txt", bytesOf("lille"));
    }

    void add(std::u16string_view name, const std::string& path, const Bytes& bytes)
    {
        files[path] = bytes;
        image.putFile(next++, { 20, 1 }, name, bytes);
    }

    /// Photographs with something behind their ends, as telephones write it.
    void addPhotographs()
    {
        for (char letter = 'a'; letter < 'f'; ++letter) {
            auto photograph = jpegFile({}, 5000u + static_cast<unsigned>(letter) * 30);
            photograph.resize(photograph.size() + 700, 1);
            add(std::u16string { static_cast<char16_t>(letter) } + u".jpg",
                std::string("/mappe/") + letter + ".jpg", photograph);
        }
    }

    Bytes bytes()
    {
        auto& bytes = image.bytes();
        for (std::uint64_t number = 0; number < 4; ++number)
            copyWithin(bytes, image.recordOffset(number),
                image.offsetOf(image.mirrorLCN()) + number * 1024, 1024);
        auto all = bytes;
        copyWithin(all, 0, all.size(), 512);
        return all;
    }

    Bytes withoutBoot()
    {
        auto all = bytes();
        erase(all, 0, 512);
        erase(all, all.size() - 512, 512);
        return all;
    }
};

} // namespace

TEST(LostVolumes, NoneOnASoundDiskAndEachOnceWithoutItsTable)
{
    NTFSVolume ntfs;
    copyWithin(ntfs.image.bytes(), ntfs.image.recordOffset(24), ntfs.image.offsetOf(150),
        1024); // an old copy
    const Bytes volumes[]
        = { fat32Volume(), exfatVolume(), ntfs.bytes(), hfsPlusVolume(), apfsImage().bytes() };
    const std::string counts[] = { "116", "1", "2", "1", "1" };
    constexpr FileSystemType types[] = { FileSystemType::fat32, FileSystemType::exfat,
        FileSystemType::ntfs, FileSystemType::hfsplus, FileSystemType::apfs };
    std::uint64_t lba = 63;
    std::string all;
    std::vector<PartitionImage::GPTSlot> slots;
    PartitionImage disk(8_MiB);
    for (std::size_t i = 0; const auto& volume : volumes) { // one right behind the other
        slots.push_back({ basicDataGUID, lba, lba + volume.size() / 512 - 1 });
        disk.put(lba, volume);
        all += std::string(displayName(types[i])) + " @ " + std::to_string(lba * 512) + ", "
            + counts[i] + "; ";
        lba += volume.size() / 512;
        disk.put(15'000 + i++,
            Bytes(volume.begin(), volume.begin() + 512)); // boot sectors kept as files
    }
    const auto sound = scan(disk.gpt(slots).source()->read(0, 8_MiB, ReadMode::thorough));
    EXPECT_EQ(ScannedDisk::listing(sound.known), all);
    EXPECT_EQ(ScannedDisk::listing(sound.lost), "");
    const auto bare
        = scan(disk.put(0, Bytes(34 * 512)).source()->read(0, 8_MiB, ReadMode::thorough));
    EXPECT_EQ(ScannedDisk::listing(bare.known), "");
    EXPECT_EQ(ScannedDisk::listing(bare.lost), all);
}

TEST(LostVolumes, BootSectorsAloneDoNotFillTheMemory)
{
    auto bytes = fat32Volume();
    for (std::uint64_t at = 2048; at < bytes.size() / 2;
         at += 2048) { // each one's table is what lies behind it
        copyWithin(bytes, 0, at, 512);
        putLE(bytes, at + 14, 1, 2);
        write(bytes, at + 512, bytesOf("\xF8\xFF\xFF\x0F"));
    }
    EXPECT_LT(scan(bytes).lost.size(), 64u);
}

TEST(LostVolumes, CopiesServeWhereTheBeginningIsLost)
{
    auto ntfs4096 = NTFSVolume().bytes();
    putLE(ntfs4096, 11, 4096, 2);
    putLE(ntfs4096, 13, 1, 1);
    putLE(ntfs4096, 40, 200, 8);
    copyWithin(ntfs4096, 0, 200 * 4096, 512);
    const std::string backup = "Dyb scanning, sikkerhedskopi af boot-sektor";
    const std::string alternate = "Dyb scanning, sikkerhedskopi af volumeheader";
    const struct {
        const char* name;
        Bytes volume;
        std::size_t lost; // bytes of its beginning
        std::string path, origin;
    } rows[] = {
        { "FAT32", fat32Volume(), 512, "/FIL.BIN", backup },
        { "exFAT", exfatVolume(), 512, "/fil.bin", backup },
        { "exFAT, sectors of 4096 bytes", exfatVolume(12), 512, "/fil.bin", backup },
        { "NTFS", NTFSVolume().bytes(), 8192, "/mappe/fil.bin", backup },
        { "NTFS, sectors of 4096 bytes", ntfs4096, 8192, "/mappe/fil.bin", backup },
        { "HFS+", hfsPlusVolume(), 1536, "/fil.bin", alternate },
        { "HFS+, longer than its blocks", hfsPlusVolume(1024, 512), 1536, "/fil.bin", alternate },
        { "APFS", apfsImage().bytes(), 4096, "/fil.bin", "Dyb scanning, container-superblok ved " },
    };
    for (const auto& [name, volume, lost, path, origin] : rows) {
        SCOPED_TRACE(name);
        auto bytes = diskOf(volume);
        erase(bytes, oddPlace, lost);
        const auto disk = scan(bytes);
        ASSERT_EQ(disk.lost.size(), 1u) << ScannedDisk::listing(disk.lost);
        EXPECT_EQ(disk.lost[0]->offset, oddPlace);
        EXPECT_TRUE(disk.lost[0]->origin.starts_with(origin)) << disk.lost[0]->origin;
        EXPECT_EQ(disk.files(*disk.lost[0])[path], content);
    }
}

TEST(LostVolumes, RebuildsNTFSFromItsRecordsAlone)
{
    const std::string placed = "NTFS @ " + std::to_string(oddPlace) + ", ";
    const auto eraseRecords
        = [](NTFSVolume& volume, Bytes& disk, std::uint64_t from, std::uint64_t to) {
              for (auto number = from; number < to; ++number)
                  erase(disk, oddPlace + volume.image.recordOffset(number), 1024);
          };
    const auto keepFilesOnly
        = [&](NTFSVolume& volume, Bytes& disk) { // no record 0, and no copy of it
              eraseRecords(volume, disk, 0, 16);
              erase(disk, oddPlace + volume.image.offsetOf(volume.image.mirrorLCN()), 4096);
          };
    const NTFSImage::Options coarse { .clusterSize = 65536, .clusters = 48 };
    const NTFSImage::Options parted {
        .clusterSize = 4096, .clusters = 200, .mft = { { 60, 7 }, { 20, 9 } }
    };
    const struct {
        const char* name;
        NTFSImage::Options options;
        std::function<void(NTFSVolume&, Bytes&)> damage;
        std::string lost;
        bool hasPhotographs = true;
        std::size_t files = 7; // that come back by path and bytes
    } rows[] = {
        { "record 0 and its copy", roomy, [](NTFSVolume&, Bytes&) {}, placed + "2; ", false, 2 },
        { "an MFT in pieces", parted, [](NTFSVolume&, Bytes&) {}, placed + "2; ", false, 2 },
        { "the copy alone", roomy,
            [&](NTFSVolume& volume, Bytes& disk) { eraseRecords(volume, disk, 0, 4); },
            placed + "2; ", false, 2 },
        { "large clusters, a copy of more than four records", coarse,
            [&](NTFSVolume& volume, Bytes& disk) {
                const auto mirror = oddPlace + volume.image.offsetOf(volume.image.mirrorLCN());
                for (std::uint64_t number = 4; number < 30; ++number)
                    copyWithin(disk, oddPlace + volume.image.recordOffset(number),
                        mirror + number * 1024, 1024);
            },
            placed + "2; ", false, 2 },
        { "seventy blank records with the number 0 in front", roomy,
            [&](NTFSVolume& volume, Bytes& disk) {
                volume.image.put(50, {});
                auto& bytes = volume.image.bytes();
                Bytes blank(in(bytes, volume.image.recordOffset(50)),
                    in(bytes, volume.image.recordOffset(51)));
                putLE(blank, 44, 0, 4);
                for (int i = 0; i < 70; ++i)
                    disk.insert(disk.begin(), blank.begin(), blank.end());
            },
            "NTFS @ " + std::to_string(oddPlace + 70 * 1024) + ", 2; ", false, 2 },
        { "the records of files, and what they speak of", roomy, keepFilesOnly, placed + "7; " },
        { "nothing but the index of a folder, where partitions begin", roomy, keepFilesOnly,
            placed + "2; ", false, 2 },
        { "nothing that could tell the place", roomy,
            [&](NTFSVolume& volume, Bytes& disk) {
                keepFilesOnly(volume, disk);
                const auto signature = bytesOf("INDX");
                const auto index
                    = std::search(disk.begin(), disk.end(), signature.begin(), signature.end());
                std::fill_n(index, signature.size(), std::uint8_t { 0 });
            },
            "NTFS @ 0, 2; ", false, 1 },
        { "an old copy of a record in front of an MFT in pieces", parted,
            [&](NTFSVolume& volume, Bytes& disk) {
                keepFilesOnly(volume, disk);
                copyWithin(disk, oddPlace + volume.image.recordOffset(24), 20 * 512, 1024);
            },
            placed + "7; " },
        { "formatted with larger clusters, and nothing found by its content", roomy,
            [&](NTFSVolume& volume, Bytes& disk) {
                keepFilesOnly(volume, disk);
                NTFSImage anew(
                    { .clusterSize = 8192, .clusters = 100, .records = 16, .mft = { { 90, 2 } } });
                const auto mft = anew.recordOffset(0);
                write(disk, oddPlace, { in(anew.bytes(), 0), in(anew.bytes(), 512) });
                write(disk, oddPlace + mft,
                    { in(anew.bytes(), mft), in(anew.bytes(), mft + 16'384) });
            },
            placed + "0; " + placed + "2; ", false, 2 },
    };
    for (const auto& [name, options, damage, lost, hasPhotographs, files] : rows) {
        SCOPED_TRACE(name);
        NTFSVolume volume(options);
        if (hasPhotographs)
            volume.addPhotographs();
        auto bytes = diskOf(volume.withoutBoot());
        damage(volume, bytes);
        const auto disk = scan(bytes);
        EXPECT_EQ(ScannedDisk::listing(disk.lost), lost);
        Files found;
        for (const auto& built : disk.lost) {
            const bool isRebuilt = built->origin == "Dyb scanning, MFT-poster";
            EXPECT_EQ(built->notes.size(), !isRebuilt ? 0u : built->offset != 0 ? 1u : 2u);
            built->root->forEachDescendant([&](const FileNode& node, std::size_t) {
                EXPECT_EQ(node.status == EntryStatus::orphaned, isRebuilt) << node.path();
            });
            found.merge(disk.files(*built));
        }
        EXPECT_EQ(countRight(volume.files, found), files);
    }
}

namespace {

/// Files as a user has them, on a volume that another system's tools make.
struct LostToolMadeVolume : ::testing::Test {
    LostToolMadeVolume()
    {
        setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
        std::filesystem::create_directories(folder / "ind/Billeder/2024");
        for (std::uint32_t i = 0; i < 12; ++i) {
            const auto number = std::to_string(i);
            files["/Billeder/2024/IMG_" + number + ".jpg"] = jpegFile({}, 40'000 + i * 1000);
            files["/Billeder/notat " + number + ".txt"] = bytesOf("lille " + number);
        }
        for (const auto& [path, bytes] : files)
            writeFile(folder / ("ind" + path), bytes);
    }

    /// Runs a command in the test's folder, where "disk.img" is the volume and "ind" has the files.
    bool hasRun(const std::string& command) const
    {
        return runCommand("export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8; cd " + folder.path() + "; "
                   + command)
            == 0;
    }

    /// The share of the files that come back by path and bytes from the one volume that was lost,
    /// in percent.
    std::size_t share(const Bytes& bytes) const
    {
        const auto disk = scan(bytes);
        return disk.lost.size() == 1
            ? 100 * countRight(files, disk.files(*disk.lost[0])) / files.size()
            : 0;
    }

    /// Damages a disk with the volume more and more, and asks each time. `places`: what to erase,
    /// from the volume's beginning.
    void damage(const std::vector<std::pair<std::uint64_t, std::size_t>>& places) const
    {
        auto disk = diskOf(readFile(folder / "disk.img"), 1_MiB);
        auto two = disk;
        two.insert(two.begin(), in(disk, disk.size() / 2), disk.end());
        EXPECT_EQ(share(two), 100u) << "the second half of a disk with two partitions";
        EXPECT_EQ(share(disk), 100u) << "no partition table";
        for (const auto& [at, count] : places) {
            erase(disk, 1_MiB + at, count);
            EXPECT_EQ(share(disk), 100u) << "nothing at " << at;
        }
    }

    TemporaryFolder folder;
    Files files;
};

} // namespace

TEST_F(LostToolMadeVolume, ComesBackAsFAT32)
{
    if (!hasProgram("mkfs.fat") || !hasProgram("mcopy"))
        GTEST_SKIP() << "needs dosfstools and mtools";
    ASSERT_TRUE(hasRun("mkfs.fat -C -F 32 -s 1 disk.img 34000 && mcopy -s -i disk.img ind/* ::/"));
    damage({ { 0, 512 } });
}

TEST_F(LostToolMadeVolume, ComesBackAsNTFS)
{
    if (!hasProgram("mkntfs") || !hasProgram("ntfs-3g") || !std::filesystem::exists("/dev/fuse"))
        GTEST_SKIP() << "needs ntfs-3g and FUSE";
    ASSERT_TRUE(
        hasRun("truncate -s 16M disk.img && mkntfs -F -q -Q -c 4096 disk.img && mkdir mnt"));
    if (!hasRun("ntfs-3g -o no_detach disk.img mnt & for i in $(seq 50); do mountpoint -q mnt && "
                "break; sleep 0.1; "
                "done; mountpoint -q mnt && cp -r ind/* mnt && umount mnt && wait"))
        GTEST_SKIP() << "nothing can be mounted here";
    damage({ { 0, 8192 }, { 16_MiB - 512, 512 } });
    for (const std::string clusterSize : { "4096", "8192", "512" }) {
        ASSERT_TRUE(
            hasRun("cp disk.img anew.img && mkntfs -F -q -Q -c " + clusterSize + " anew.img"));
        EXPECT_GE(share(readFile(folder / "anew.img")), 95u)
            << "formatted anew, over one of the files: " << clusterSize;
    }
}
