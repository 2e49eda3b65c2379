// MFT records that lie on a known volume and that its MFT does not have.

#include "Tests/Support/DeepScan.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

#include <functional>

using namespace NTFSTestVolume;

namespace {

constexpr std::uint64_t second = 10'000'000; // in units of a FILETIME
constexpr std::uint64_t later = Image::creation + 2 * second;
constexpr FileReference folder { 20, 3 };

/// A volume whose MFT has a second piece from record 48 on, which its record 0 does not name.
Image parted()
{
    Image image({ .clusters = 700, .records = 64, .mft = { { 16, 48 }, { 600, 16 } } });
    image.put(0,
        { .attributes = { Image::data(
              { .runs = { { 16, 48 } }, .size = 48 * 1024, .allocated = 48 * 1024 }) } });
    image.markUsed(600, 16);
    image.putFolder(folder.number, root, u"mappe", true, folder.sequence);
    return image;
}

Image::Record file(FileReference parent, std::uint64_t changed = later)
{
    return { .attributes
        = { Image::standardInformation(Image::creation, Image::modification, changed),
            Image::fileName(parent, u"fil"), Image::data(bytesOf("x")) } };
}

/// Path, status and chance of every file that a deep scan lists, "?" in front of those that are not
/// in the first volume.
std::string listing(const Image& image)
{
    std::string text;
    const Found found(*image.source());
    for (const auto& volume : found.volumes)
        for (const auto* node : volume->root->allFiles())
            text += (volume == found.volumes.front() ? "" : "?") + node->path() + ", " + fate(*node)
                + "; ";
    return text;
}

} // namespace

TEST(NTFSJoinVolume, HangsLooseRecordsUnderTheFolderTheyName)
{
    const std::string inFolder = "/mappe/fil, Eksisterende, God; ";
    const std::string elsewhere = "?/$Forældreløse filer/fil, Forældreløs, God; ";
    const struct {
        const char* what;
        std::function<void(Image&)> change;
        std::string listing;
    } rows[] = {
        { "a lost piece of the MFT", [](Image& image) { image.put(50, file(folder)); }, inFolder },
        { "below the root", [](Image& image) { image.put(50, file(root)); },
            "/fil, Eksisterende, God; " },
        { "below a folder that is loose too",
            [](Image& image) {
                auto inner = file(folder);
                inner.isDirectory = true;
                image.put(51, inner);
                image.put(50, file({ 51, 1 }));
            },
            "/mappe/fil/fil, Eksisterende, God; " },
        { "attributes in an extension record that the MFT has",
            [](Image& image) {
                auto base = file(folder);
                base.attributes[2]
                    = Image::attribute(0x20, Image::listContent({ { 0x80, { 30, 1 } } }));
                image.put(50, base);
                image.put(
                    30, { .base = { 50, 1 }, .attributes = { Image::data(bytesOf("indhold")) } });
            },
            inFolder },
        { "deleted",
            [](Image& image) {
                auto deleted = file(folder);
                deleted.inUse = false;
                image.put(50, deleted);
            },
            "/mappe/fil, Slettet, God; " },
        { "in a piece that the MFT gave up",
            [](Image& image) {
                image.put(50, file(folder));
                image.markUsed(600, 16, false);
            },
            "/mappe/fil, Slettet, God; " },
        { "a number that has another file by now",
            [](Image& image) {
                image.put(50, file(folder));
                putLE(image.bytes(), image.recordOffset(50, 44), 30, 4);
                image.put(30, named(u"ny", { Image::data(bytesOf("y")) }));
            },
            "/mappe/fil, Slettet, God; /ny, Eksisterende, God; " },
        { "the folder's number belongs to another one",
            [](Image& image) {
                image.put(50, file({ folder.number, 2 }));
            },
            elsewhere },
        { "below the root of what was there before, maybe",
            [](Image& image) {
                image.put(50, file(root));
                image.markUsed(600, 16, false);
            },
            "?/fil, Forældreløs, God; " },
        { "written before the volume was made",
            [](Image& image) { image.put(50, file(folder, Image::creation + second - 1)); },
            elsewhere },
        { "two copies of a record",
            [](Image& image) {
                image.put(50, file(folder));
                image.put(52, file(folder));
                putLE(image.bytes(), image.recordOffset(52, 44), 50, 4);
            },
            inFolder },
        { "the content of a file",
            [](Image& image) {
                image.put(50, file(folder));
                image.put(21,
                    named(
                        u"disk", { Image::data({ .runs = { { 600, 16 } }, .size = 16 * 1024 }) }));
            },
            "/disk, Eksisterende, God; " + elsewhere },
    };
    for (const auto& [what, change, expected] : rows) {
        auto image = parted();
        change(image);
        EXPECT_EQ(listing(image), expected) << what;
    }
}
