// What is left of volumes whose trees lack nodes.

#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedAPFS.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t blockSize = APFSImage::blockSize;
const std::string older = "Filens nyeste poster er beskadiget; en ældre udgave af dem er brugt";

/// A volume of which the first leaf has a folder's names and some inodes, and the others the rest.
struct Spread {
    APFSImage image { {} };
    Bytes content = patternBytes(blockSize);

    Leaf files(std::uint64_t first, std::uint64_t count)
    {
        Leaf all;
        for (auto id = first; id < first + count; ++id)
            all = all
                + image.file({ .id = id,
                                 .parent = 2,
                                 .name = "fil " + std::to_string(id),
                                 .size = content.size() },
                    block(id));
        return all;
    }
    std::uint64_t block(std::uint64_t id)
    {
        const auto [known, isNew] = blocks.try_emplace(id, 0);
        if (isNew)
            known->second = image.store(content);
        return known->second;
    }
    std::map<std::uint64_t, std::uint64_t> blocks {};
};

} // namespace

TEST(APFSDamage, OlderLeavesGiveWhatTheLiveTreeLacks)
{
    // The leaves are cut anew by the newest commit, so that no version of a node has all that the
    // lost one had. One file was deleted before, one was made after.
    Spread disk;
    auto& image = disk.image;
    image.commit(APFSImage::split(disk.files(20, 31), 7));
    image.commit(APFSImage::split(disk.files(20, 30), 7));
    image.commit(APFSImage::split(disk.files(21, 30), 9));
    const auto sound = parse(image);
    ASSERT_EQ(sound["/fil 20"].status, EntryStatus::deleted);
    for (std::size_t leaf = 0; leaf < 10; ++leaf) {
        SCOPED_TRACE(leaf);
        auto damaged = image;
        breakChecksum(damaged, image.leafBlock(leaf));
        const auto found = parse(damaged);
        for (std::uint64_t id = 21; id < 50; ++id) {
            const auto path = "/fil " + std::to_string(id);
            EXPECT_EQ(found[path].status, EntryStatus::existing) << path;
            EXPECT_EQ(found.content(path), disk.content) << path;
            EXPECT_EQ(found[path].recoverability, Recoverability::good) << path;
            EXPECT_TRUE(!found[path].note || found[path].note == older) << chance(found[path]);
        }
    }
}

TEST(APFSDamage, AnOlderRecordIsDoubtedWhereItsBlocksAreFreeOrAnothers)
{
    for (const bool isFree : { true, false }) {
        Spread disk;
        auto& image = disk.image;
        image.commit(APFSImage::split(disk.files(20, 3), 4));
        auto newer = disk.files(20, 2);
        if (!isFree)
            newer = newer + Leaf { APFSImage::extent(20, blockSize, blockSize, disk.block(22)) };
        if (isFree)
            image.setFree(disk.block(22));
        const auto moved = image.store(disk.content);
        image.commit({ newer,
            image.file({ .id = 22, .parent = 2, .name = "fil 22", .size = blockSize }, moved) });
        breakChecksum(image, image.leafBlock(1));
        const auto found = parse(image);
        EXPECT_EQ(
            chance(found["/fil 22"]), "Delvis: " + older + "; Dele af filen kan være overskrevet");
    }
}

TEST(APFSDamage, LooseLeavesGiveWhatNoOlderStateHas)
{
    Spread disk;
    auto& image = disk.image;
    image.commit({ disk.files(20, 4), disk.files(24, 4) });
    for (std::uint64_t i = 0; i < 8; ++i) // until the checkpoint area has forgotten it
        image.commit({ disk.files(20, 4),
            disk.files(24, 4)
                + image.file({ .id = 40, .parent = 2, .name = "ny " + std::to_string(i) }) });
    for (std::uint64_t block = image.leafBlock(0) + 1; block < 300; ++block)
        if (APFSParser::looksLikeFSTreeLeaf(
                ByteView(image.bytes())
                    .sub(static_cast<std::int64_t>(image.offsetOf(block)), blockSize))
            && block > image.leafBlock(0) + 1)
            breakChecksum(image, block);
    EXPECT_EQ(parse(image).names().find("fil 24"), std::string::npos);
    const Found found(image.bytes());
    for (std::uint64_t id = 20; id < 28; ++id)
        EXPECT_EQ(found.count("/fil " + std::to_string(id), disk.content), 1) << id;
    const auto& root = *found.volumes.at(0)->root;
    EXPECT_EQ(root.totals().deleted, 0u);
    EXPECT_EQ(root.totals().files, 8u);
}
