// Volumes of which only MFT records are left: where they lie is told by what lies where the records
// say.

#include "Tests/Images/CarvedFile.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild.h"

#include <gtest/gtest.h>

#include <algorithm>

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
    void addPhotograph(std::uint64_t lcn, std::uint64_t size)
    {
        const auto number = next_++;
        const auto name
            = u"foto " + std::u16string(1, static_cast<char16_t>(u'A' + number)) + u".jpg";
        image_.put(number,
            named(name,
                { Image::data(Image::Data {
                    .runs = { { lcn, 1 } }, .size = size, .allocated = clusterSize }) }));
    }
    void addFolder(std::uint64_t lcn)
    {
        const auto number = next_++;
        image_.put(number,
            { .isDirectory = true,
                .attributes = { Image::fileName(root, u"mappe"),
                    Image::nonResident(0xA0, { .runs = { { lcn, 1 } }, .size = clusterSize }) } });
    }

    /// A photograph that lies somewhere, and was found there by its content.
    void placePhotograph(std::uint64_t offset, std::size_t data)
    {
        const auto photograph = jpegFile({}, data);
        image_.write(offset, photograph);
        carved_.push_back({ .offset = offset, .size = photograph.size(), .ext = "jpg" });
    }
    void placeIndex(std::uint64_t offset) { image_.write(offset, bytesOf("INDX")); }

    /// "Where it lies, number of files" of every volume that is built, "?" for an unknown place.
    std::string rebuild()
    {
        std::ranges::sort(carved_, {}, &CarvedFile::offset);
        const auto source = image_.source();
        const NTFSParser::RebuildHints hints {
            .geometries = {}, .volumes = {}, .starts = {}, .carved = carved_
        };
        std::string listing;
        for (const auto& volume :
            NTFSParser::rebuild(*source, image_.recordOffsets(), hints, nullptr)) {
            const bool hasPlace = volume->notes.size() == 1;
            listing += (hasPlace ? std::to_string(volume->offset) : "?") + ", "
                + std::to_string(volume->root->totals().files) + "; ";
        }
        return listing;
    }

    Image& image() { return image_; }

private:
    Image image_;
    std::vector<CarvedFile> carved_;
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
        EXPECT_EQ(
            remains.rebuild(), photographs == 10 ? std::to_string(base) + ", 10; " : "?, 11; ");
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
        remains.addFolder(110 + i);
        remains.placeIndex(base + (110 + i) * clusterSize);
    }
    // More photographs lie elsewhere in the same order, but none is as large as a record says.
    for (std::uint64_t i = 0; i < 4; ++i)
        remains.placePhotograph(elsewhere + (100 + i) * clusterSize, 2000 + 10 * i);
    EXPECT_EQ(remains.rebuild(), std::to_string(base) + ", 4; ");
}

TEST(NTFSRebuild, ListsAFileOfWhichManyRecordsAreLeftOnceAVolume)
{
    // Twelve states of one record, which are not apart as those of an MFT are: as many volumes as
    // there may be, and the last one has the rest.
    Remains remains;
    remains.addPhotograph(100, 2000);
    const auto from = remains.image().recordOffset(24);
    const auto& bytes = remains.image().bytes();
    const Bytes record(bytes.begin() + static_cast<std::ptrdiff_t>(from),
        bytes.begin() + static_cast<std::ptrdiff_t>(from + 1024));
    for (std::uint64_t copy = 1; copy < 12; ++copy)
        remains.image().write(remains.image().recordOffset(24 + copy), record);
    std::string eight;
    for (int volume = 0; volume < 8; ++volume)
        eight += "?, 1; ";
    EXPECT_EQ(remains.rebuild(), eight);
}
