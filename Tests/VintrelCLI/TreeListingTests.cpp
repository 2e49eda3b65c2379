#include "VintrelCLI/TreeListing.h"
#include "VintrelCore/Model/Volume.h"

#include <gtest/gtest.h>

#include <string>

TEST(TreeListing, LosesNoLineOfAListingOfManyBlocks)
{
    auto root = FileNode::makeFolder("", EntryStatus::existing);
    std::string expected = "Uden navn (FAT32) [her] @ 512\n     note: Bemærk\n";
    for (int number = 0; number < 20'000; ++number) {
        const auto name = "fil " + std::to_string(number);
        root->add(FileNode::makeFile(name, 1, EntryStatus::existing));
        expected += "  " + name + "  1 byte\n";
    }
    Volume volume(FileSystemType::fat32, "", 512, 0, std::move(root), "her");
    volume.notes.emplace_back("Bemærk");
    std::string out;
    listTree(volume, [&](std::string_view lines) { out += lines; });
    EXPECT_EQ(out, expected);
}

TEST(TreeListing, IndentsNoDeeperThanAScreenIsWide)
{
    Volume volume(
        FileSystemType::fat32, "", 512, 0, FileNode::makeFolder("", EntryStatus::existing), "her");
    auto* folder = volume.root.get();
    for (int level = 1; level <= 200; ++level)
        folder = &folder->add(FileNode::makeFolder("m", EntryStatus::existing));
    std::string out;
    listTree(volume, [&](std::string_view lines) { out += lines; });
    EXPECT_TRUE(out.ends_with("\n" + std::string(128, ' ') + "m/\n"));
}
