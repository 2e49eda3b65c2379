// Files of which only lists of blocks are left, as ext3 and the driver of ext4 leave them.

#include "Tests/Support/ExtLooseFiles.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

void putList(ExtImage& image, std::uint64_t at, const Blocks& numbers)
{
    for (std::size_t index = 0; index < numbers.size(); ++index)
        store<std::uint32_t>(image.bytes(), ExtImage::offsetOf(at) + index * 4, numbers[index]);
}

const Blocks cutList = with(range(212, 4), range(300, 10));
const Blocks cutFile = with(range(200, 12), cutList);

} // namespace

TEST(ExtLooseLists, GiveBackAFileInPiecesWhoseContentSaysWhereItEnds)
{
    const auto content = sound(cutFile.size() * block - 100);
    ExtImage image;
    putContent(image, cutFile, content);
    putList(image, 150, cutList);
    const auto source = makeSource(image.bytes());
    const auto volumes = FullScan::run(*source, { .deep = DeepScanOptions() }, nullptr);
    ASSERT_EQ(volumes.size(), 2u);
    const auto* file = volumes[0]->root->allFiles().back();
    EXPECT_EQ(file->path(), "/$Filer fra bloklister/blok-150.wav");
    EXPECT_EQ(file->recoverability, Recoverability::good) << file->note.value_or("");
    EXPECT_EQ(FileReader::readPrefix(*file, *source, 1_MiB), content);
    // The head promises as much in one piece, which is wrong.
    const auto* carved = volumes[1]->root->allFiles().back();
    EXPECT_EQ(carved->size, content.size());
    EXPECT_EQ(carved->recoverability, Recoverability::partial);
    EXPECT_EQ(carved->note, "Et filsystem har filen, og har resten af den et andet sted");
}

TEST(ExtLooseLists, PromiseNothingWhereNoContentAgrees)
{
    const auto content = patternBytes(cutFile.size() * block - 100);
    ExtImage image;
    putContent(image, cutFile, content);
    putList(image, 150, cutList);
    const Found found(image.bytes());
    EXPECT_EQ(found.count("/blok-150", content), 1);
    EXPECT_EQ(looseFile(found)->recoverability, Recoverability::unknown);

    const auto longer = sound(cutFile.size() * block + 1);
    putContent(image, cutFile, longer);
    EXPECT_EQ(looseFile(Found(image.bytes()))->recoverability, Recoverability::unknown);
}

TEST(ExtLooseLists, GoOnInListsOfLists)
{
    const auto ofLists = with(range(200, 12), range(213, 256));
    const struct {
        const char* what;
        std::uint32_t list, parent, child, first; // of the blocks behind those of the first list
    } layouts[] = {
        { "each list before what it names", 212, 469, 470, 471 },
        { "all lists elsewhere", 150, 151, 152, 469 },
    };
    for (const auto& [what, list, parent, child, first] : layouts) {
        SCOPED_TRACE(what);
        const auto blocks = with(ofLists, range(first, 5));
        const auto content = sound(blocks.size() * block - 4);
        ExtImage image;
        putContent(image, blocks, content);
        putList(image, list, range(213, 256));
        putList(image, parent, { child });
        putList(image, child, range(first, 5));
        const bool isBetween = list == 212;
        const Found found(image.bytes());
        // Where the lists lie elsewhere, the direct blocks lie right before the thirteenth.
        EXPECT_EQ(found.count(".wav", content), isBetween ? 1 : 0);
        auto moved = image;
        putContent(moved, with(range(201, 12), with(range(213, 256), range(first, 5))), content);
        EXPECT_EQ(Found(moved.bytes()).count(".wav", content), isBetween ? 0 : 1);

        erase(image.bytes(), ExtImage::offsetOf(parent), ExtImage::offsetOf(parent + 1));
        const Found without(image.bytes());
        const auto* cut = looseFile(without);
        ASSERT_NE(cut, nullptr);
        EXPECT_NE(cut->recoverability, Recoverability::good);
        EXPECT_LE(cut->size, ofLists.size() * block);
    }
}

TEST(ExtLooseLists, AreNotBelievedInUseNorTwice)
{
    ExtImage image;
    putContent(image, cutFile, sound(cutFile.size() * block - 100));
    putList(image, 150, cutList);
    const struct {
        const char* what;
        std::function<void(ExtImage&)> change;
    } changes[] = {
        { "the list is in use", [](ExtImage& it) { it.setUsed(150, 1, true); } },
        { "a number beyond the volume",
            [](ExtImage& it) {
                putList(it, 150, { 212, 213, 214, 215, 1024 });
            } },
        { "a block twice",
            [](ExtImage& it) {
                putList(it, 150, { 212, 213, 214, 212 });
            } },
        { "numbers behind zeros",
            [](ExtImage& it) {
                putList(it, 150, { 212, 213, 0, 214 });
            } },
        { "a file of the volume has them",
            [](ExtImage& it) {
                it.putInode(13,
                    { .size = cutFile.size() * block,
                        .extents = { { 0, 200, 16 }, { 16, 300, 10 } } });
            } },
    };
    ASSERT_NE(looseFile(Found(image.bytes())), nullptr);
    for (const auto& [what, change] : changes) {
        auto changed = image;
        change(changed);
        EXPECT_EQ(looseFile(Found(changed.bytes())), nullptr) << what;
    }
    image.setUsed(305, 1, true); // by another file, since
    EXPECT_EQ(looseFile(Found(image.bytes()))->recoverability, Recoverability::partial);
}
