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

TEST(TreeListing, ShowsStreamsBelowTheirFileWhereTheyAreAskedFor)
{
    Volume volume(
        FileSystemType::ntfs, "", 512, 0, FileNode::makeFolder("", EntryStatus::existing), "her");
    auto& file = volume.root->add(FileNode::makeFile("fil", 1, EntryStatus::deleted));
    file.attach({ .kind = Attachment::Kind::attribute, .name = "skjult", .data = {}, .size = 1 });
    file.attach({ .kind = Attachment::Kind::stream, .name = "a\nb", .data = {}, .size = 1 });
    std::string plain, withStreams;
    listTree(volume, [&](std::string_view lines) { plain += lines; });
    listTree(
        volume, [&](std::string_view lines) { withStreams += lines; }, ListedStreams::yes);
    EXPECT_EQ(withStreams, plain + "    fil:a\\nb  1 byte  [Slettet, God]\n");
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
