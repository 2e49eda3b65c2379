// Volumes that mke2fs and debugfs made, of all variants.

#include "Tests/Support/DeepScan.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

/// A folder with files of many sizes, one with holes, links, and more names than a block holds.
class ExtTools : public testing::Test {
protected:
    void SetUp() override
    {
        if (!hasProgram("mke2fs") || !hasProgram("debugfs"))
            GTEST_SKIP() << "needs e2fsprogs";
        std::filesystem::create_directories(folder / "kilde/mappe/dybere");
        for (const std::size_t size :
            { 0U, 1U, 59U, 61U, 150U, 1024U, 5000U, 300'000U, 5'000'000U })
            put("kilde/mappe/fil" + std::to_string(size), patternBytes(size, 3));
        for (int index = 0; index < 300; ++index)
            put("kilde/mappe/dybere/et ganske langt navn nummer " + std::to_string(index),
                patternBytes(20, static_cast<std::uint32_t>(index)));
        auto sparse = patternBytes(900'000, 9);
        erase(sparse, 65'536, 786'432);
        put("kilde/huller", sparse);
        std::filesystem::resize_file(folder / "kilde/huller", 900'000);
        std::filesystem::create_symlink("mappe/fil1", folder / "kilde/kort");
        std::filesystem::create_symlink(std::string(200, 'x'), folder / "kilde/lang");
        std::filesystem::create_hard_link(folder / "kilde/mappe/fil5000", folder / "kilde/hård");
        files["/kort"] = bytesOf("mappe/fil1");
        files["/lang"] = bytesOf(std::string(200, 'x'));
        files["/hård"] = patternBytes(5000, 3);
    }

    void put(const std::string& name, const Bytes& content)
    {
        writeFile(folder / name, content);
        files[name.substr(5)] = content;
    }

    /// Makes a volume with the files, in 64 MiB.
    void make(const std::string& options, const std::string& sizes = "65536k")
    {
        ASSERT_EQ(runCommand("rm -f '" + image + "'; truncate -s 64M '" + image + "'; mke2fs -q -F "
                      + options + " -d '" + (folder / "kilde") + "' '" + image + "' " + sizes),
            0);
    }

    /// How many of the files a deep scan finds, and how many with another content.
    std::pair<std::size_t, std::size_t> found(const Bytes& disk) const
    {
        const Found result(disk);
        std::size_t right = 0;
        std::size_t wrong = 0;
        for (const auto& [path, content] : files) {
            const auto [first, last] = result.files.equal_range(path);
            bool isRight = false;
            for (auto file = first; file != last; ++file)
                isRight = isRight
                    || file->second
                        == Bytes(content.begin(),
                            content.begin()
                                + static_cast<std::ptrdiff_t>(std::min(content.size(), 1_MiB)));
            right += isRight ? 1 : 0;
            wrong += !isRight && first != last ? 1 : 0;
        }
        return { right, wrong };
    }

    TemporaryFolder folder;
    const std::string image = folder / "billede";
    std::map<std::string, Bytes> files;
};

} // namespace

TEST_F(ExtTools, AllVariantsAreReadAsTheyWereMade)
{
    const char* const rows[] = { "-t ext2 -b 1024", "-t ext2 -r 0", "-t ext3 -I 128", "-t ext4",
        "-t ext4 -b 2048 -I 1024", "-t ext4 -b 1024 -O ^64bit,^metadata_csum,uninit_bg",
        "-t ext4 -O inline_data", "-t ext4 -O bigalloc -C 16384",
        "-t ext4 -b 1024 -O meta_bg,^resize_inode -g 1024", "-t ext4 -O sparse_super2,^flex_bg",
        "-t ext4 -O metadata_csum_seed" };
    for (const auto* row : rows) {
        ASSERT_NO_FATAL_FAILURE(make(row));
        EXPECT_EQ(found(readFile(image)), std::pair(files.size(), std::size_t { 0 })) << row;
    }
}

TEST_F(ExtTools, LostBeginningsAreMadeUpForByCopies)
{
    make("-t ext4 -b 1024");
    auto disk = readFile(image);
    erase(disk, 0, 8192); // superblock and descriptors
    EXPECT_EQ(found(disk), std::pair(files.size(), std::size_t { 0 }));
    make("-t ext4 -b 1024 -O ^has_journal");
    disk = readFile(image);
    erase(disk, 0, 8192);
    erase(
        disk, 8_MiB + 2048, 8_MiB + 4096); // of every copy too: inodes tell where their tables lie
    for (const std::size_t group : { 3U, 5U, 7U })
        erase(disk, group * 8_MiB + 2048, group * 8_MiB + 4096);
    EXPECT_EQ(found(disk), std::pair(files.size(), std::size_t { 0 }));
}

TEST_F(ExtTools, FilesOfAVolumeThatWasFormattedAgainAreFound)
{
    make("-t ext4 -b 1024");
    ASSERT_EQ(
        runCommand("mke2fs -q -F -t ext4 -b 1024 -E nodiscard,lazy_itable_init=1 '" + image + "'"),
        0);
    const Found result(readFile(image));
    EXPECT_EQ(result.count("/fil300000", patternBytes(300'000, 3)), 1);
    EXPECT_EQ(result.count("/dybere/et ganske langt navn nummer 77", patternBytes(20, 77)), 1);
}

TEST_F(ExtTools, FilesOfAnExt3VolumeAreFoundBelowAnExt4OneByTheirFolders)
{
    for (std::uint32_t index = 0; index < 200; ++index) {
        const auto name = "kilde/mappe/" + std::to_string(index);
        std::filesystem::create_directory(folder / name);
        put(name + "/fil" + std::to_string(index) + ".dat", patternBytes(3000, index));
    }
    make("-t ext3 -b 1024 -I 256");
    ASSERT_EQ(runCommand("mke2fs -q -F -t ext4 -b 1024 -E nodiscard,lazy_itable_init=1 "
                         "-O ^resize_inode '"
                  + image + "'"),
        0);
    const Found result(readFile(image));
    int right = 0;
    for (std::uint32_t index = 0; index < 200; ++index)
        right += result.count("/fil" + std::to_string(index) + ".dat", patternBytes(3000, index))
            == 1;
    EXPECT_GE(right, 150);
}

TEST_F(ExtTools, DeletedFilesOfExt2AreFoundBesideTheLivingOnes)
{
    make("-t ext2 -b 1024");
    ASSERT_EQ(runCommand("debugfs -w -R 'rm /mappe/fil300000' '" + image + "'"), 0);
    const auto source = makeSource(readFile(image));
    DeepScanOptions options;
    options.carve = false;
    const auto volumes = FullScan::run(*source, options, nullptr);
    ASSERT_EQ(volumes.size(), 1u);
    std::string deleted;
    for (const auto* file : volumes.front()->root->allFiles())
        if (file->status == EntryStatus::deleted
            && FileReader::readPrefix(*file, *source, 1_MiB) == patternBytes(300'000, 3))
            deleted += file->path();
    EXPECT_EQ(deleted, "/mappe/fil300000");
}
