// Containers that other tools made, and what other tools read from ours: nothing here depends on our own idea of the
// format alone.

#include "Tests/Images/APFSImage.h"
#include "VintrelCore/FileReader.h"
#include "VintrelCore/Scanner.h"
#include "VintrelCore/SourceOpener.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class APFSTools : public ::testing::Test {
protected:
    void SetUp() override { setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1); }

    std::string run(const std::string& command)
    {
        std::string output;
        EXPECT_EQ(runCommand(command, &output), 0) << command << "\n" << output;
        return output;
    }

    TemporaryFolder folder;
    std::string image = folder / "drev.img";
};

} // namespace

TEST_F(APFSTools, AnEmptyContainerOfMkapfs)
{
    if (!hasProgram("mkapfs") || !hasProgram("apfsck"))
        GTEST_SKIP() << "needs apfsprogs";
    run("truncate -s 512M " + image + " && mkapfs -L 'Æ drev' " + image);
    EXPECT_EQ(run("apfsck -cuw " + image), "");
    const auto source = SourceOpener::openImage(image);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes[0]->title(), "Æ drev (APFS)");
    EXPECT_TRUE(result.volumes[0]->root->children().empty());
    EXPECT_TRUE(result.volumes[0]->notes.empty());
}

TEST_F(APFSTools, OtherReadersFindTheSameInOurContainer)
{
    if (!hasProgram("fls") || !hasProgram("icat") || !hasProgram("fsapfsinfo"))
        GTEST_SKIP() << "needs sleuthkit and libfsapfs-utils";
    APFSImage built;
    const auto content = patternBytes(10'000);
    const auto block = built.store(content);
    APFSImage::Leaf records;
    for (const auto& part : { built.folder(16, 2, "mappe"),
             built.file({ .id = 20, .parent = 16, .name = "fil", .size = content.size() }, block),
             built.file({ .id = 21, .parent = 2, .name = "tom" }) })
        records.insert(records.end(), part.begin(), part.end());
    built.commit(APFSImage::split(records, 3));
    writeFile(image, built.bytes());
    const auto pool = " -P apfs -B " + std::to_string(built.volumeSuperblock()) + " ";
    EXPECT_EQ(run("fls -r -p" + pool + image), "d/d 16:\tmappe\nr/r 20:\tmappe/fil\nr/r 21:\ttom\n");
    run("icat" + pool + image + " 20 > " + (folder / "fil"));
    EXPECT_EQ(readFile(folder / "fil"), content);
    EXPECT_NE(run("fsapfsinfo -H " + image).find("/mappe/fil\n"), std::string::npos);
    EXPECT_NE(run("pstat " + image).find("Name (Role): DISK"), std::string::npos);
}

TEST_F(APFSTools, AContainerOfMacOS)
{
    const std::string packed = "/work/shared/images/apfs.raw.xz";
    if (!fs::exists(packed) || !hasProgram("xz") || !hasProgram("icat"))
        GTEST_SKIP() << "needs the collection of real images, xz and sleuthkit";
    run("xz -dc " + packed + " > " + image);
    const auto source = SourceOpener::openImage(image);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes[0]->title(), "apfs_test (APFS)");
    const auto files = result.volumes[0]->root->allFiles();
    EXPECT_EQ(files.size(), 8u);
    for (const auto* file : files) {
        EXPECT_EQ(file->recoverability, Recoverability::good) << file->path();
        if (file->size == 0 || file->name == "a_link") // whose target icat does not print
            continue;
        run("icat -P apfs -B 107 " + image + " " + std::to_string(file->fsID) + " > " + (folder / "fil"));
        EXPECT_EQ(FileReader::readPrefix(*file, *source, 1_MiB), readFile(folder / "fil")) << file->path();
    }
}
