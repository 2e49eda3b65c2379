// Cards that other systems' tools make, read by us: nothing here depends on our own idea of the
// format.

#include "Tests/Support/TestSource.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <map>

namespace fs = std::filesystem;

namespace {

/// Files by their path, as bytes.
using Files = std::map<std::string, Bytes>;

class ToolMadeCard : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
        if (!hasProgram("mkfs.fat") || !hasProgram("mcopy"))
            GTEST_SKIP() << "needs dosfstools and mtools";
    }

    void tool(const std::string& command)
    {
        std::string output;
        ASSERT_EQ(runCommand("export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8; " + command, &output), 0)
            << command << "\n"
            << output;
    }

    void addFile(const std::string& path, std::size_t size)
    {
        files[path] = patternBytes(size, static_cast<std::uint32_t>(files.size()));
        fs::create_directories(fs::path(folder / ("src" + path)).parent_path());
        writeFile(folder / ("src" + path), files[path]);
    }

    TemporaryFolder folder;
    std::string image = folder / "kort.img";
    Files files;
};

} // namespace

TEST_P(ToolMadeCard, EveryFileComesBackAlsoTheDeletedOnes)
{
    const int width = GetParam();
    addFile("/DCIM/100CANON/IMG_0001.JPG", 100'000);
    addFile("/DCIM/100CANON/IMG_0002.JPG", 60'001);
    addFile("/DCIM/100CANON/Et langt navn med æ, ø og å.jpg", 5'000);
    addFile("/DCIM/100CANON/Øst for Årup.jpg", 5'000);
    addFile("/TOM.TXT", 0);
    for (int i = 0; i < 4;
         ++i) // as many as fit into the smallest cluster: what follows it can lie anywhere
        addFile("/MAPPE/Fil nummer " + std::to_string(i) + ".dat", 700);

    const std::string size = width == 12 ? "4096" : width == 16 ? "20480" : "66560";
    tool("mkfs.fat -C -F " + std::to_string(width) + " -n 'MIT KORT' " + image + " " + size);
    tool("mcopy -s -i " + image + " " + (folder / "src") + "/* ::/");
    tool("mdel -i " + image
        + " '::/DCIM/100CANON/IMG_0002.JPG' '::/DCIM/100CANON/Øst for Årup.jpg'");
    tool("mdeltree -i " + image + " ::/MAPPE");
    files["/DCIM/100CANON/_MG_0002.JPG"] = std::exchange(files["/DCIM/100CANON/IMG_0002.JPG"], {});
    files.erase("/DCIM/100CANON/IMG_0002.JPG");

    std::string check;
    EXPECT_EQ(runCommand("fsck.fat -n " + image, &check), 0) << check;
    const auto source = SourceOpener::openImage(image);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    const auto& volume = *result.volumes[0];
    EXPECT_EQ(volume.title(), "MIT KORT (FAT" + std::to_string(width) + ")");
    Files found;
    for (const auto* node : volume.root->allFiles()) {
        auto path = node->path();
        if (path.starts_with("/_APPE/"))
            path[1] = 'M';
        found[path] = FileReader::readPrefix(*node, *source, 1_MiB);
        const bool isDeleted = path.starts_with("/MAPPE") || path.ends_with("_MG_0002.JPG")
            || path.ends_with("Årup.jpg");
        EXPECT_EQ(node->status, isDeleted ? EntryStatus::deleted : EntryStatus::existing) << path;
        EXPECT_EQ(node->recoverability, Recoverability::good) << path;
    }
    for (const auto& [path, bytes] : files) {
        ASSERT_TRUE(found.contains(path)) << path;
        EXPECT_EQ(found[path], bytes) << path;
    }
    EXPECT_EQ(found.size(), files.size());
}

INSTANTIATE_TEST_SUITE_P(FAT, ToolMadeCard, ::testing::Values(12, 16, 32));
