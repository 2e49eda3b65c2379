// Files of which only nodes of extent trees are left.

#include "Tests/Support/ExtLooseFiles.h"
#include "Tests/Support/ParsedVolume.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

constexpr std::uint32_t number = 40, generation = 77;
const Blocks cutFile = with(with(range(200, 5), range(300, 10)), range(250, 4));
const std::vector<ExtImage::Piece> firstPieces { { 0, 200, 5 }, { 5, 300, 10 } };
const std::vector<ExtImage::Piece> lastPiece { { 15, 250, 4 } };
const std::vector<ExtImage::Piece> allPieces { firstPieces[0], firstPieces[1], lastPiece[0] };
const Bytes content = sound(cutFile.size() * block - 100);

ExtImage withContent()
{
    ExtImage image;
    putContent(image, cutFile, content);
    return image;
}

/// The file that loose blocks tell of, its chance, and whether its content is right.
std::string described(const ExtImage& image)
{
    const Found found(image.bytes());
    const auto* const file = looseFile(found);
    if (file == nullptr)
        return "none";
    return file->name + ", " + chance(*file).substr(0, chance(*file).find(':')) + ", "
        + (found.count("/" + file->name, content) == 1 ? "right" : "wrong");
}

} // namespace

TEST(ExtLooseNodes, GiveBackTheFileThatTheyTellOf)
{
    const struct {
        const char* what;
        std::function<void(ExtImage&)> put;
        const char* expected;
    } rows[] = {
        { "one leaf", [](ExtImage& it) { it.putNode(150, number, generation, allPieces); },
            "blok-150.wav, God, right" },
        { "two leaves, the last one first",
            [](ExtImage& it) {
                it.putNode(150, number, generation, lastPiece);
                it.putNode(151, number, generation, firstPieces);
            },
            "blok-151.wav, God, right" },
        { "two leaves of other files",
            [](ExtImage& it) {
                it.putNode(150, number, generation + 1, lastPiece);
                it.putNode(151, number, generation, firstPieces);
            },
            "blok-151, Ukendt, wrong" },
        { "leaves that a node names",
            [](ExtImage& it) {
                it.putNode(150, number, generation, lastPiece);
                it.putNode(151, number, generation, firstPieces);
                it.putNode(152, number, generation, { { 0, 151, 0 }, { 15, 150, 0 } }, 1);
            },
            "blok-152.wav, God, right" },
        { "an older state of a leaf beside it",
            [](ExtImage& it) {
                it.putNode(150, number, generation, firstPieces);
                it.putNode(151, number, generation, allPieces);
            },
            "blok-151.wav, God, right" },
        { "a file that exists had the blocks",
            [](ExtImage& it) {
                it.putNode(150, 13, generation, allPieces);
                it.putFile(13, 400, "kort");
                it.putInode(
                    13, { .size = 4, .generation = generation, .extents = { { 0, 400, 1 } } });
                it.putFolder(
                    ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 13, "lyd.wav" } });
            },
            "lyd.wav, God, wrong" }, // two files have the path's end
    };
    for (const auto& [what, put, expected] : rows) {
        auto image = withContent();
        put(image);
        EXPECT_EQ(described(image), expected) << what;
    }
}

TEST(ExtLooseNodes, AreNotBelievedWhereTheyCannotBe)
{
    const struct {
        const char* what;
        std::function<void(ExtImage&)> change;
        const char* expected;
    } rows[] = {
        { "the node is in use", [](ExtImage& it) { it.setUsed(150, 1, true); }, "none" },
        { "a piece in use now", [](ExtImage& it) { it.setUsed(305, 1, true); },
            "blok-150.wav, Delvis, right" },
        { "a piece beyond the volume",
            [](ExtImage& it) {
                it.putNode(150, number, generation, { { 0, 200, 5 }, { 5, 1020, 10 } });
            },
            "none" },
        { "pieces one over another",
            [](ExtImage& it) {
                it.putNode(150, number, generation, { { 0, 200, 5 }, { 4, 300, 10 } });
            },
            "none" },
        { "no beginning", [](ExtImage& it) { it.putNode(150, number, generation, lastPiece); },
            "none" },
        { "room for more than a block has",
            [](ExtImage& it) { it.bytes()[ExtImage::offsetOf(150) + 4] = 170; }, "none" },
        { "a file of the volume has them",
            [](ExtImage& it) { it.putInode(13, { .size = content.size(), .extents = allPieces }); },
            "none" },
        { "a folder's",
            [](ExtImage& it) {
                it.putFolder(12, ExtImage::root, 200, {});
                it.putInode(12, { .mode = 0, .links = 0 });
                it.setUsed(200, 1, false);
            },
            "none" },
    };
    for (const auto& [what, change, expected] : rows) {
        auto image = withContent();
        image.putNode(150, number, generation, allPieces);
        change(image);
        EXPECT_EQ(described(image), expected) << what;
    }
}

TEST(ExtLooseNodes, LeaveOpenWhetherAFullOneWasTheLast)
{
    std::vector<ExtImage::Piece> pieces;
    for (std::uint32_t index = 0; index < 84; ++index)
        pieces.push_back({ index, 200 + 2 * std::uint64_t { index }, 1 });
    ExtImage image;
    Blocks blocks;
    for (const auto& piece : pieces)
        blocks.push_back(static_cast<std::uint32_t>(piece.block));
    putContent(image, blocks, sound(blocks.size() * block));
    image.putNode(150, number, generation, pieces);
    const Found found(image.bytes());
    EXPECT_EQ(chance(*looseFile(found)),
        "Ringe: Kun dele af filens blokke kendes; "
        "Filens størrelse kendes ikke");
}
