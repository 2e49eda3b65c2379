// Volumes of which only MFT records are left: where they lie is told by what lies where the records
// say.

#include "Tests/Images/CarvedFile.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using namespace NTFSTestVolume;

namespace {

constexpr std::uint64_t clusterSize = 4096;

/// The records of a volume whose MFT begins with none, on a disk that holds other things.
class Remains {
public:
    Remains()
        : image_({ .clusterSize = clusterSize, .clusters = 400, .records = 128 })
    {
        image_.bytes().assign(image_.bytes().size(), 0);
    }

    /// A photograph that is said to begin at a cluster; a folder that has its index there.
    /// Its number is the result.
    std::uint64_t addPhotograph(std::uint64_t lcn, std::uint64_t size)
    {
        const auto number = next_++;
        const auto name
            = u"foto " + std::u16string(1, static_cast<char16_t>(u'A' + lcn % 50)) + u".jpg";
        image_.put(number,
            named(name,
                { Image::data(Image::Data {
                    .runs = { { lcn, 1 } }, .size = size, .allocated = clusterSize }) }));
        return number;
    }
    /// Lets a record say that it has another number.
    void renumber(std::uint64_t number, std::uint64_t other)
    {
        putLE(image_.bytes(), image_.recordOffset(number, 44), other, 4);
    }
    /// Its reference is the result.
    FileReference addFolder(std::uint64_t lcn)
    {
        const auto number = next_++;
        image_.put(number,
            { .isDirectory = true,
                .attributes = { Image::fileName(root, u"mappe"),
                    Image::nonResident(0xA0, { .runs = { { lcn, 1 } }, .size = clusterSize }) } });
        return { number, 1 };
    }

    /// A photograph that lies somewhere, and was found there by its content.
    void placePhotograph(std::uint64_t offset, std::size_t data)
    {
        const auto photograph = jpegFile({}, data);
        image_.write(offset, photograph);
        carved_.push_back({ .offset = offset, .size = photograph.size(), .ext = "jpg" });
    }
    void placeIndex(std::uint64_t offset, FileReference folder)
    {
        image_.write(offset, Image::indexBlock(folder));
    }

    /// "Where it lies, number of files" of every volume that is built, "?" for an unknown place,
    /// and "uncertain" where its files say so.
    std::string rebuild()
    {
        std::ranges::sort(carved_, {}, &CarvedFile::offset);
        const auto source = image_.source();
        const NTFSParser::RebuildHints hints {
            .geometries = {}, .volumes = {}, .starts = starts_, .carved = carved_
        };
        std::string listing;
        for (const auto& volume :
            NTFSParser::rebuild(*source, image_.recordOffsets(), hints, nullptr)) {
            const auto files = volume->root->allFiles();
            const std::string note = files.empty() ? "" : files[0]->note.value_or("");
            const bool isNowhere = note == "Filens placering kendes ikke";
            const bool isUncertain = note == "Filsystemets placering er usikker";
            EXPECT_EQ(volume->notes.size(), isNowhere || isUncertain ? 2u : 1u);
            listing += (isNowhere ? "?" : std::to_string(volume->offset)) + ", "
                + std::to_string(files.size()) + (isUncertain ? ", uncertain; " : "; ");
        }
        return listing;
    }

    void tryStart(std::uint64_t start) { starts_.push_back(start); }
    Image& image() { return image_; }

private:
    Image image_;
    std::vector<CarvedFile> carved_;
    std::vector<std::uint64_t> starts_;
    std::uint64_t next_ = 24;
};

constexpr std::uint64_t base = 100 * 512;       // where the volume began
constexpr std::uint64_t elsewhere = 1000 * 512; // where another one might have begun

std::size_t sizeOf(std::size_t data) { return jpegFile({}, data).size(); }

} // namespace

TEST(NTFSRebuild, BelievesOneInTenWitnessesAndNotLess)
{
    for (const std::uint64_t photographs : { 10u, 11u }) {
        Remains remains;
        for (std::uint64_t i = 0; i < photographs; ++i)
            remains.addPhotograph(100 + i, 2000 + i);
        // Another one than all of them, where the last one would be.
        remains.placePhotograph(base + (100 + photographs - 1) * clusterSize, 900);
        EXPECT_EQ(remains.rebuild(),
            photographs == 10 ? std::to_string(base) + ", 10, uncertain; " : "?, 11; ");
    }
}

TEST(NTFSRebuild, TriesFindsOfTheRecordedSizeBesideThoseOfTheSameKind)
{
    Remains remains;
    for (std::uint64_t i = 0; i < 3; ++i) {
        remains.addPhotograph(100 + i, sizeOf(1000 + 10 * i));
        remains.placePhotograph(base + (100 + i) * clusterSize, 1000 + 10 * i);
    }
    remains.addPhotograph(103, sizeOf(1500)); // overwritten
    for (std::uint64_t i = 0; i < 2; ++i) {
        const auto folder = remains.addFolder(110 + i);
        remains.placeIndex(base + (110 + i) * clusterSize, folder);
    }
    // More photographs lie elsewhere in the same order, but none is as large as a record says.
    for (std::uint64_t i = 0; i < 4; ++i)
        remains.placePhotograph(elsewhere + (100 + i) * clusterSize, 2000 + 10 * i);
    EXPECT_EQ(remains.rebuild(), std::to_string(base) + ", 4; ");
}

TEST(NTFSRebuild, BelievesAnIndexOnlyWhenItIsTheFolders)
{
    const struct {
        const char* what;
        std::function<void(Remains&, std::uint64_t, FileReference)> place;
        bool isPlaced;
    } cases[] = {
        { "its own",
            [](Remains& remains, std::uint64_t offset, FileReference folder) {
                remains.placeIndex(offset, folder);
            },
            true },
        { "another folder's",
            [](Remains& remains, std::uint64_t offset, FileReference folder) {
                remains.placeIndex(offset, { folder.number + 1, folder.sequence });
            },
            false },
        { "that of the folder which had its number before",
            [](Remains& remains, std::uint64_t offset, FileReference folder) {
                remains.placeIndex(offset, { folder.number, 2 });
            },
            false },
        { "damaged",
            [](Remains& remains, std::uint64_t offset, FileReference folder) {
                remains.placeIndex(offset, folder);
                remains.image().bytes()[offset + 1022] ^= 1;
            },
            false },
        { "empty",
            [](Remains& remains, std::uint64_t offset, FileReference folder) {
                remains.placeIndex(offset, folder);
                remains.image().bytes()[offset + 64 + 12] = 2;
            },
            false },
        { "a signature alone",
            [](Remains& remains, std::uint64_t offset, FileReference) {
                remains.image().write(offset, bytesOf("INDX"));
            },
            false },
    };
    for (const auto& [what, place, isPlaced] : cases) {
        Remains remains;
        remains.tryStart(base);
        remains.addPhotograph(100, 2000);
        place(remains, base + 110 * clusterSize, remains.addFolder(110));
        EXPECT_EQ(remains.rebuild(), isPlaced ? std::to_string(base) + ", 1; " : "?, 1; ") << what;
    }
}

TEST(NTFSRebuild, BelievesHintsLikeFinds)
{
    const auto placed = std::to_string(base) + ", 1";
    const std::pair<std::uint64_t, std::string> cases[] = { { 2, placed + "; " },
        { 3, placed + ", uncertain; " }, { 10, placed + ", uncertain; " }, { 11, "?, 1; " } };
    for (const auto& [witnesses, listing] : cases) {
        Remains remains;
        remains.tryStart(base);
        remains.placeIndex(base + 110 * clusterSize, remains.addFolder(110));
        remains.addPhotograph(100, 2000); // which lies nowhere, as all other folders
        for (std::uint64_t i = 2; i < witnesses; ++i)
            remains.addFolder(110 + i);
        EXPECT_EQ(remains.rebuild(), listing) << witnesses;
    }
}

TEST(NTFSRebuild, ListsAFileOnceAVolumeAndEachOfItsStatesOnce)
{
    // Twelve records of one file, which are not apart as those of an MFT are: as many volumes as
    // there may be, and the last one has the rest.
    for (const bool areStatesAlike : { true, false }) {
        Remains remains;
        for (std::uint64_t copy = 0; copy < 12; ++copy) {
            const auto number = remains.addPhotograph(100, areStatesAlike ? 2000 : 2000 + copy);
            remains.renumber(number, 24);
        }
        std::string listing;
        for (int volume = 0; volume < (areStatesAlike ? 1 : 8); ++volume)
            listing += "?, 1; ";
        EXPECT_EQ(remains.rebuild(), listing);
    }
}

TEST(NTFSRebuild, ListsOnlyWhatACopyOfAnMFTHasAnew)
{
    // Two copies of three records: the second one has a file in an older place.
    const std::vector<std::uint64_t> older[] = { { 100, 101, 102 }, { 100, 151, 102 } };
    for (const auto& lcns : older) {
        Remains remains;
        for (std::uint64_t i = 0; i < 3; ++i)
            remains.addPhotograph(100 + i, 2100 + i);
        for (std::uint64_t i = 0; i < 3; ++i) {
            const auto number = remains.addPhotograph(lcns[i], 2100 + i);
            remains.renumber(number, 24 + i);
        }
        EXPECT_EQ(remains.rebuild(), lcns[1] == 151 ? "?, 3; ?, 1; " : "?, 3; ");
    }
}

TEST(NTFSRebuild, AsksNoBitmapThatAKnownVolumeMayHaveWrittenOver)
{
    Image image;
    image.putFile(20, root, u"slettet", patternBytes(2000), false);
    image.write(0, Bytes(512));
    const auto source = image.source();
    const NTFSGeometry known { .base = 0, .clusterSize = 512, .volumeSize = image.bytes().size() };
    const std::vector<CarvedFile> carved;
    const std::uint64_t bitmap = 2 * image.bitmapLCN(); // clusters of the known volume
    const std::pair<std::uint64_t, std::string> cases[]
        = { { bitmap - 1, "God" }, { bitmap, "Ukendt: Det vides ikke, om pladsen er genbrugt" } };
    for (const auto& [used, fateOfFile] : cases) {
        Bytes bits(400);
        bits.at(used / 8) = static_cast<std::uint8_t>(1 << used % 8);
        const NTFSParser::RebuildHints hints { .geometries = {},
            .volumes = {},
            .starts = {},
            .carved = carved,
            .used = { { known, AllocationMap::load({ *source, known }, bits) } } };
        const auto volumes = NTFSParser::rebuild(*source, image.recordOffsets(), hints, nullptr);
        ASSERT_EQ(volumes.size(), 1u);
        EXPECT_EQ(chance(*volumes[0]->root->allFiles().at(0)), fateOfFile);
    }
}
