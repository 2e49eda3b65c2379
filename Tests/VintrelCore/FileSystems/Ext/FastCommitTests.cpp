// What was written to a volume of ext4 after the last whole transaction.

#include "Tests/Images/ExtImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t folderBlock = 100, oldBlock = 110, newBlock = 120;
constexpr std::uint16_t created = 3, linked = 4, unlinked = 5;
constexpr std::uint32_t next = 2; // behind the one transaction

/// A folder "mappe" with the file "gammel", and a deleted file without a name.
ExtImage before()
{
    ExtImage image;
    image.useFastCommits(8);
    image.putFile(13, oldBlock, "gammel tekst");
    image.putInode(
        15, { .size = 8, .links = 0, .deleted = 1'600'000'000, .extents = { { 0, newBlock, 1 } } });
    image.write(ExtImage::offsetOf(newBlock), bytesOf("slettet!"));
    image.putFolder(12, ExtImage::root, folderBlock, { { 13, "gammel" } });
    image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" } });
    image.commit({ ExtImage::tableBlockOf(13), folderBlock, ExtImage::bitmapBlock });
    image.demandReplay();
    return image;
}

/// All files with their contents, and what became of them.
std::string told(const Bytes& bytes)
{
    Parsed disk { makeSource(bytes), nullptr };
    disk.volume = ExtParser::parse(*disk.source, 0, "test", nullptr);
    std::string text;
    for (const auto* file : disk.volume->root->allFiles()) {
        const auto content = disk.content(file->path());
        text += (text.empty() ? "" : ", ") + file->name + "="
            + std::string(content.begin(), content.end()) + " ("
            + std::string(
                file->status == EntryStatus::existing ? "findes" : label(file->recoverability))
            + ")";
    }
    return text;
}

} // namespace

TEST(ExtFastCommits, AreReadAsFarAsTheirChecksumsFit)
{
    const auto image = [] {
        auto made = before();
        auto later = made;
        later.putFile(14, newBlock, "ny tekst");
        later.putInode(13,
            { .size = 12,
                .links = 0,
                .deleted = 1'700'000'000,
                .extents = { { 0, oldBlock, 1 } } });
        made.write(ExtImage::offsetOf(newBlock), bytesOf("ny tekst"));
        made.putFastCommit(next,
            { later.inode(14), ExtImage::blocks(14, { 0, newBlock, 1 }),
                ExtImage::name(created, 12, 14, "ny") });
        made.putFastCommit(next, { ExtImage::name(unlinked, 12, 13, "gammel"), later.inode(13) });
        return made;
    }();
    const auto area = ExtImage::offsetOf(ExtImage::journalBlock + ExtImage::journalBlocks - 7);
    const std::string nothing = "inode-15=ny tekst (God), gammel=gammel tekst (findes)";
    const struct {
        const char* what;
        std::size_t damaged;
        std::string expected;
    } rows[] = {
        { "both", 0, "inode-15=ny tekst (Ringe), gammel=gammel tekst (God), ny=ny tekst (findes)" },
        { "the first", area + ExtImage::blockSize + 5,
            "inode-15=ny tekst (Ringe), gammel=gammel tekst (findes), ny=ny tekst (findes)" },
        { "none", area + 30, nothing },
    };
    for (const auto& [what, damaged, expected] : rows) {
        auto bytes = image.bytes();
        if (damaged != 0)
            bytes[damaged] ^= 1;
        EXPECT_EQ(told(bytes), expected) << what;
    }
}

TEST(ExtFastCommits, GiveFilesTheNamesThatTheyHaveInTheEnd)
{
    auto image = before();
    image.putFastCommit(next,
        { ExtImage::name(linked, 12, 13, "ny"), ExtImage::name(unlinked, 12, 13, "gammel"),
            ExtImage::name(created, 12, 99, "for stort"),
            ExtImage::name(linked, 12, 13, "kort tid") });
    image.putFastCommit(next, { ExtImage::name(unlinked, 12, 13, "kort tid") });
    EXPECT_EQ(told(image.bytes()), "inode-15=slettet! (God), ny=gammel tekst (findes)");
}

TEST(ExtFastCommits, AreForgottenWhereATransactionHasBeenWrittenSince)
{
    auto image = before();
    image.putFastCommit(next - 1, { ExtImage::name(linked, 12, 13, "ny") });
    EXPECT_EQ(told(image.bytes()), told(before().bytes()));
    image = before();
    image.putFastCommit(next, { ExtImage::name(linked, 12, 13, "ny") });
    EXPECT_NE(told(image.bytes()), told(before().bytes()));
}
