// Containers that other tools made, and what other tools read from ours: nothing here depends on
// our own idea of the format alone.

#include "Tests/Images/APFSImage.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

class APFSTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    }

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

TEST_F(APFSTools, ReadsAnEmptyContainerOfMkapfs)
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
    std::vector<ByteRange> used;
    ASSERT_TRUE(APFSParser::addUsedRanges(*source, *result.volumes[0], used));
    EXPECT_EQ(used.at(0).start, 0u);
    std::uint64_t bytes = 0;
    for (const auto& range : used)
        bytes += range.end - range.start;
    EXPECT_LT(bytes, source->size() / 2) << "most of it is free";
}

TEST_F(APFSTools, OtherReadersFindTheSameInOurContainer)
{
    if (!hasProgram("fls") || !hasProgram("icat") || !hasProgram("fsapfsinfo"))
        GTEST_SKIP() << "needs sleuthkit and libfsapfs-utils";
    APFSImage built({ .blocks = 600 });
    const auto content = patternBytes(10'000);
    const auto block = built.store(content);
    auto records = built.folder(16, 2, "mappe");
    for (std::uint64_t id = 20; id < 80; ++id) // so many that the trees have levels
        for (const auto& record : built.file({ .id = id,
                                               .parent = id % 3 == 0 ? 16u : 2u,
                                               .name = "fil " + std::to_string(id),
                                               .size = content.size() },
                 block))
            records.push_back(record);
    built.commit(APFSImage::split(records, 1));
    writeFile(image, built.bytes());

    const auto pool = " -P apfs -B " + std::to_string(built.volumeSuperblock()) + " ";
    const auto listed = run("fls -r -p" + pool + image), listedToo = run("fsapfsinfo -H " + image);
    const auto source = SourceOpener::openImage(image);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    const auto files = result.volumes[0]->root->allFiles();
    EXPECT_EQ(files.size(), 60u);
    EXPECT_EQ(std::ranges::count(listed, '\n'), 61);
    for (const auto* file : files) {
        const auto path = file->path();
        EXPECT_NE(listed.find("r/r " + std::to_string(file->fsID) + ":\t" + path.substr(1) + "\n"),
            std::string::npos)
            << path;
        EXPECT_NE(listedToo.find(path + "\n"), std::string::npos) << path;
    }
    run("icat" + pool + image + " 20 > " + (folder / "fil"));
    EXPECT_EQ(readFile(folder / "fil"), content);
    EXPECT_NE(run("pstat " + image).find("Name (Role): DISK"), std::string::npos);
}
