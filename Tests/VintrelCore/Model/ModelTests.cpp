#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using enum EntryStatus;

std::unique_ptr<FileNode> file(
    std::string name, std::uint64_t size = 0, EntryStatus status = existing)
{
    return FileNode::makeFile(std::move(name), size, status);
}

std::unique_ptr<FileNode> folder(std::string name, EntryStatus status = existing)
{
    return FileNode::makeFolder(std::move(name), status);
}

std::vector<std::string> names(const auto& nodes)
{
    std::vector<std::string> names;
    for (const auto& node : nodes)
        names.push_back(node->name);
    return names;
}

using Names = std::vector<std::string>;

} // namespace

TEST(FileNode, KnowsItsPlace)
{
    const auto root = folder("");
    auto& photos = root->add(folder("Billeder"));
    auto& picture = photos.add(file("a.jpg", 10));
    root->add(file("b.txt", 5, deleted));
    auto& gone = root->add(folder("Slettet", deleted));
    gone.add(file("c.txt", 7));
    photos.add(file("a.jpg", 20, carved)); // names may repeat

    EXPECT_EQ(root->path(), "/");
    EXPECT_EQ(picture.path(), "/Billeder/a.jpg");
    EXPECT_EQ(names(root->folders()), (Names { "Billeder", "Slettet" }));
    EXPECT_EQ(names(root->allFiles()), (Names { "a.jpg", "a.jpg", "b.txt", "c.txt" }));
    EXPECT_EQ(root->totals(), (Totals { .files = 4, .folders = 2, .bytes = 42, .deleted = 2 }));
    EXPECT_EQ(
        Volume(FileSystemType::carved, "", 0, 0, folder(""), "").title(), "Uden navn (Signaturer)");
}

TEST(FileNode, SortsAsPeopleDo)
{
    Names expected { "10 ting", "ålen", // folders first
        "", "-", "0", "00", "001", "01", "1", "1a", "2", "10", "99999999999999999999998",
        "99999999999999999999999", "[", "a", "IMG_2.jpg", "img_3.jpg", "IMG_10.jpg", "IMG_10a.jpg",
        "Z", "z", "zz", "\xFF" };
    if (Unicode::foldedCase(U'Æ') == U'æ') {
        const Names danish { "Æble", "æBLER", "ø", "Øl" };
        expected.insert(expected.end() - 1, danish.begin(), danish.end());
    }
    const auto isFolder
        = [](const std::string& name) { return name == "10 ting" || name == "ålen"; };
    auto shuffled = expected;
    std::ranges::shuffle(shuffled, std::mt19937(1));
    const auto root = folder("");
    auto& inner = root->add(folder("indre")).add(folder("inderst")); // the whole subtree is sorted
    for (const auto& name : shuffled)
        inner.add(isFolder(name) ? folder(name) : file(name));
    root->sortChildren();
    EXPECT_EQ(names(inner.children()), expected);
}

TEST(FileNode, EqualNamesKeepADefiniteOrder)
{
    const auto root = folder("");
    for (const std::uint64_t size : { 2u, 3u })
        root->add(file("a", size, deleted));
    root->add(file("A", 4, orphaned));
    root->add(file("A", 1, deleted));
    root->add(file("a", 0));
    root->sortChildren();
    for (std::uint64_t i = 0; i < 5; ++i)
        EXPECT_EQ(root->children()[i]->size, i);
}

TEST(FileNode, WhatIsAddedAfterSortingStandsBehindIt)
{
    const auto root = folder("");
    for (const auto* name : { "c", "b10", "b9" })
        root->add(file(name));
    root->sortChildren();
    EXPECT_EQ(root->totals().files, 3u); // in no order
    root->add(file("a"));
    root->removeChildren([](const FileNode& node) { return node.name == "b10"; });
    EXPECT_EQ(names(root->children()), (Names { "b9", "c", "a" }));
    root->removeAllChildren();
    EXPECT_TRUE(root->children().empty());
}

TEST(FileNode, DatesAndNotesAreNoneUntilTheyAreSet)
{
    auto node = file("a");
    EXPECT_TRUE(!node->modified && !node->note && node->modified == std::optional<Date>());
    EXPECT_EQ(std::optional<Date>(node->modified), std::nullopt);
    node->modified = std::optional(Date());
    EXPECT_EQ(node->modified, Date());
    EXPECT_LT(node->created, node->modified);
    node->note = std::optional<std::string>();
    EXPECT_FALSE(node->note);
    node->addNote("en");
    node->addNote("to");
    EXPECT_EQ(node->note, "en; to");
}

TEST(FileNode, TreesAsDeepAndWideAsTheDiskClaims)
{
    constexpr std::size_t depth
        = 200'000; // recursion would have less than 42 bytes of stack a level
    auto root = folder("");
    auto* node = root.get();
    for (std::size_t i = 0; i < depth; ++i)
        node = &node->add(folder("x"));
    constexpr std::size_t width = 50'000; // what is quadratic in it would take minutes
    for (std::size_t i = 0; i < width; ++i)
        node->add(file("FIL" + std::to_string((i * 7919) % width), 3));
    root->sortChildren();
    EXPECT_EQ(node->children()[12'345]->name, "FIL12345");
    EXPECT_EQ(root->totals(),
        (Totals { .files = width, .folders = depth, .bytes = 3 * width, .deleted = 0 }));
    EXPECT_EQ(root->allFiles().size(), width);
    EXPECT_EQ(node->path().size(), 2 * depth);
    root.reset();
}
