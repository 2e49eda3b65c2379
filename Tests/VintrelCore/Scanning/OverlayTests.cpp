#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Model/SourceEnd.h"
#include "VintrelCore/Scanning/Overlay.h"

#include <gtest/gtest.h>

namespace {

std::unique_ptr<Volume> volumeWith(
    FileSystemType type, const std::vector<std::pair<std::string, FileData>>& files)
{
    auto root = FileNode::makeFolder("", EntryStatus::existing);
    for (const auto& [name, data] : files)
        root->add(FileNode::makeFile(name, 1, EntryStatus::existing, Recoverability::good, data));
    return std::make_unique<Volume>(type, "", 0, 10'000, std::move(root), "");
}

/// The chance of each stream.
std::string streams(const FileNode& file)
{
    std::string text;
    for (const auto& stream : file.attachments ? *file.attachments : Attachments())
        text += ", " + stream.name + " " + std::string(label(stream.recoverability));
    return text;
}

std::string chances(const Volume& volume)
{
    std::string text;
    for (const auto* file : volume.root->allFiles())
        text += file->name + " " + chance(*file) + streams(*file) + "\n";
    return text;
}

CompressedRuns compressed(std::uint64_t lcn)
{
    return {
        .runs = { { lcn, 1 } }, .clusterSize = 512, .unitClusters = 16, .volumeOffset = 1'000
    };
}

} // namespace

TEST(Overlay, LowersWhatLiesInWhatTrustedVolumesUse)
{
    const auto source = makeSource(Bytes(10'000));
    VolumeList volumes;
    volumes.push_back(volumeWith(FileSystemType::unknown,
        { { "a", ExtentList { { 2'000, 500 }, { std::nullopt, 500 } } },
            { "b", ExtentList { { 2'400, 600 } } } }));
    volumes.back()->root->add(FileNode::makeFile(
        "slettet", 1, EntryStatus::deleted, Recoverability::good, ExtentList { { 9'000, 500 } }));
    volumes.push_back(volumeWith(FileSystemType::unknown,
        { { "fri", ExtentList { { 1'000, 1'000 }, { 3'000, 500 } } },
            { "start", ExtentList { { std::nullopt, 10 }, { 2'999, 1 }, { 5'000, 1 } } },
            { "slutning", ExtentList { { 5'000, 1 }, { 1'999, 2 } } }, { "pakket", compressed(2) },
            { "pakket fri", compressed(9) }, { "umulig", compressed(~std::uint64_t { 0 }) },
            { "over slettet", ExtentList { { 9'000, 500 } } }, { "i posten", bytesOf("x") } }));
    auto& owner = *volumes.back()->root->children().back();
    for (const std::uint64_t start : { 2'999u, 3'000u })
        owner.attach({ .kind = Attachment::Kind::stream,
            .name = std::to_string(start),
            .data = ExtentList { { start, 100 } },
            .size = 100 });
    const std::span all(volumes);
    Overlay::judge(*source, all.first(1), all.subspan(1));
    EXPECT_EQ(chances(*volumes[0]), "a God\nb God\nslettet God\n");
    EXPECT_EQ(chances(*volumes[1]),
        "fri God\n"
        "start Ringe: Blokkene er genbrugt af andre filer\n"
        "slutning Delvis: Dele af filen kan være overskrevet\n"
        "pakket Ringe: Blokkene er genbrugt af andre filer\n"
        "pakket fri God\numulig God\nover slettet God\ni posten God, 2999 Ringe, 3000 God\n");
}

TEST(SourceEnd, IsToldOnTheVolumeAndOnEachFileBehindIt)
{
    const std::vector<std::pair<std::string, FileData>> files { { "hel",
                                                                    ExtentList { { 0, 5'000 } } },
        { "halv", ExtentList { { 4'000, 1'001 } } }, { "pakket", compressed(9) } };
    const auto expect = [&](FileSystemType type, const std::string& level) {
        const auto volume = volumeWith(type, files);
        noteSourceEnd(*volume, 5'000);
        EXPECT_EQ(volume->notes,
            std::vector<std::string> {
                "Kilden slutter før filsystemet: de sidste 5000 bytes af det mangler." });
        EXPECT_EQ(chances(*volume),
            "hel God\nhalv " + level + ": Filen rækker ud over kildens slutning\npakket " + level
                + ": Filen rækker ud over kildens slutning\n");
    };
    expect(FileSystemType::ntfs, "Delvis");
    expect(FileSystemType::fat32, "God"); // the table of FAT's levels stays
    const auto whole = volumeWith(FileSystemType::ntfs, files);
    noteSourceEnd(*whole, 10'000);
    EXPECT_TRUE(whole->notes.empty());
}

TEST(SourceEnd, LimitsSizesThatNothingCanHold)
{
    const ExtentList stored { { 0, 5'000 } }, sparse { { 0, 1'000 }, { std::nullopt, 8'000 } };
    const struct {
        FileSystemType type;
        FileData data;
        std::uint64_t size, expected;
    } rows[] = {
        { FileSystemType::apfs, stored, 5'000, 5'000 },
        { FileSystemType::apfs, sparse, 9'000, 9'000 },
        { FileSystemType::apfs, sparse, 9'001, 5'000 },
        { FileSystemType::exfat, sparse, 9'000, 5'000 },
        { FileSystemType::fat32, NoData {}, 5'001, 5'001 },
        { FileSystemType::hfsplus, DecmpfsContent { .header = {}, .bytes = Bytes(1) }, 8'192,
            8'192 },
        { FileSystemType::hfsplus, DecmpfsContent { .header = {}, .bytes = Bytes(1) }, 8'193,
            5'000 },
    };
    for (const auto& row : rows) {
        const auto volume = volumeWith(row.type, { { "fil", row.data } });
        auto& file = *volume->root->children()[0];
        file.size = row.size;
        limitSizes(*volume, 5'000);
        EXPECT_EQ(file.size, row.expected) << row.size;
        EXPECT_EQ(file.note.has_value(), row.size != row.expected);
    }
}
