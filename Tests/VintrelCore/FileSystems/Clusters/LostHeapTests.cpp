// Volumes of which nothing but directory sectors is left.

#include "Tests/Images/CarvedFile.h"
#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace {

std::u16string numbered(int number)
{
    return u"foto" + std::u16string(1, static_cast<char16_t>('0' + number));
}

/// Photographs, no two of one size. The cards below keep a directory that names them but does not
/// say where it lies, nor where another one does.
std::vector<Bytes> photographs()
{
    std::vector<Bytes> contents;
    for (std::size_t i = 0; i < 4; ++i)
        contents.push_back(jpegFile({}, 2000 + 700 * i));
    return contents;
}

} // namespace

TEST(LostHeaps, FATClustersLieWhereThePhotographsThatADirectoryNamesAre)
{
    const auto contents = photographs();
    FATImage image({ .type = FileSystemType::fat16, .sectorsPerCluster = 2 });
    const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " }, 2);
    for (int i = 0; i < 30; ++i)
        image.addEntry(folder, { .name = "FYLD" + std::to_string(10 + i) + "  TXT" });
    for (std::size_t i = 0; i < contents.size(); ++i)
        image.addFile(folder, { .name = "FOTO" + std::to_string(i) + "   JPG" }, contents[i]);
    erase(image.bytes(), 0, image.offsetOf(folder + 1));

    const Found found(image.bytes(), true);
    ASSERT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(found.volumes[0]->offset, image.offsetOf(2));
    EXPECT_EQ(found.volumes[0]->clusterSize, 1024u);
    for (std::size_t i = 0; i < contents.size(); ++i)
        EXPECT_EQ(found.count("/FOTO" + std::to_string(i) + ".JPG", contents[i]), 1) << i;
    EXPECT_TRUE(Found(image.bytes()).volumes.empty()) << "nothing but the photographs tells";
}

TEST(LostHeaps, ExFATClustersLieWhereThePhotographsThatADirectoryNamesAre)
{
    const auto contents = photographs();
    ExFATImage image({ .clusterShift = 1 });
    const auto folder = image.addFolder(image.root(), { .name = u"DCIM" });
    for (std::size_t i = 0; i < contents.size(); ++i)
        image.addFile(folder, { .name = numbered(static_cast<int>(i)) }, contents[i]);
    erase(image.bytes(), 0, image.offsetOf(folder));

    const Found found(image.bytes(), true);
    ASSERT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(found.volumes[0]->offset, image.offsetOf(2));
    EXPECT_EQ(found.volumes[0]->clusterSize, 1024u);
    for (std::size_t i = 0; i < contents.size(); ++i)
        EXPECT_EQ(found.count("/foto" + std::to_string(i), contents[i]), 1) << i;
    EXPECT_TRUE(Found(image.bytes()).volumes.empty()) << "nothing but the photographs tells";
}

TEST(LostHeaps, AFixedRootIsReadFromTheFirstOfItsSectorsThatIsLeft)
{
    constexpr std::size_t entriesInSector = 16;
    FATImage image({ .type = FileSystemType::fat16 });
    for (std::size_t i = 0; i < 2 * entriesInSector; ++i)
        image.addFile(FATImage::root, { .name = "FIL" + std::to_string(10 + i) + "   TXT" },
            patternBytes(600, static_cast<std::uint32_t>(i)));
    for (const char* name : { "ET         ", "TO         " }) {
        const auto folder = image.addFolder(FATImage::root, { .name = name });
        image.addFile(folder, { .name = "INDE    TXT" }, patternBytes(700));
    }
    image.addEntry(FATImage::root, { .name = "TOM     TXT" }); // three entries pass for a directory
    erase(image.bytes(), 0, image.entryOffset(FATImage::root, entriesInSector));

    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    for (std::size_t i = entriesInSector; i < 2 * entriesInSector; ++i)
        EXPECT_EQ(found.count("/FIL" + std::to_string(10 + i) + ".TXT",
                      patternBytes(600, static_cast<std::uint32_t>(i))),
            1)
            << i;
    EXPECT_EQ(found.count("/ET/INDE.TXT", patternBytes(700)), 1);
    EXPECT_EQ(found.count(fragments + "/INDE.TXT", patternBytes(700)), 0);
}

TEST(LostHeaps, ExFATRootsAreKnownByTheBitmap)
{
    ExFATImage image;
    for (const char16_t* name : { u"Et", u"To" }) {
        const auto folder = image.addFolder(image.root(), { .name = name });
        image.addFile(folder, { .name = u"inde" }, patternBytes(700));
    }
    erase(image.bytes(), 0, image.offsetOf(image.root()));
    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(found.volumes[0]->title(), "KORT (exFAT)");
    EXPECT_EQ(found.count("/Et/inde", patternBytes(700)), 1);
    EXPECT_EQ(found.count(fragments + "/Et/inde", patternBytes(700)), 0);
}

TEST(LostHeaps, DirectoriesBelongToTheVolumeThatHasMostOfTheirFolders)
{
    // Formatted again with larger clusters. Where the new volume would have the first folder, the
    // old one has the last one.
    ExFATImage image({ .clusters = 400 });
    const ExFATImage fresh({ .clusters = 200, .clusterShift = 1 });
    image.addFile(image.root(), { .name = u"fyld" }, Bytes(8192));
    const auto outer = image.addFolder(image.root(), { .name = u"Ydre" });
    const auto other = image.addFolder(image.root(), { .name = u"Anden" });
    std::map<std::string, std::uint32_t> folders;
    const auto add = [&](std::uint32_t parent, char16_t letter) {
        const auto folder = image.addFolder(parent, { .name = { letter } });
        folders["/" + std::string(1, static_cast<char>(letter)) + "/inde"] = folder;
        return folder;
    };
    const auto first = add(outer, u'a');
    for (const char16_t letter : { u'b', u'c' })
        add(outer, letter);
    for (const char16_t letter : { u'd', u'e' })
        add(other, letter);
    const auto meant = (fresh.offsetOf(first) - image.offsetOf(2)) / 512 + 2;
    image.allocate(meant - first - 5, true);
    ASSERT_EQ(add(outer, u'f'), meant);
    for (const auto& [path, folder] : folders)
        image.addFile(folder, { .name = u"inde" }, patternBytes(600, folder));
    image.write(0, std::span(fresh.bytes()).first(image.offsetOf(outer)));

    const Found found(image.bytes());
    EXPECT_EQ(found.volumes.size(), 2u);
    EXPECT_EQ(found.files.size(), folders.size());
    for (const auto& [path, folder] : folders)
        EXPECT_EQ(found.count(fragments + path, patternBytes(600, folder)), 1) << path;
}
