#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "Tests/Support/TimeZone.h"
#include "VintrelCore/Scanning/FullScan.h"

#include <gtest/gtest.h>

namespace {

using Image = NTFSImage;

constexpr std::uint64_t deletion = Image::modification;
constexpr std::string_view told = ", slettet 2024-01-17 21:20:00";

void putPath(Bytes& bytes, std::size_t at, std::u16string_view path)
{
    for (const auto unit : path) {
        store(bytes, at, static_cast<std::uint16_t>(unit));
        at += 2;
    }
}

Bytes index(std::uint64_t version, std::u16string_view path, std::uint64_t time = deletion)
{
    Bytes bytes(version == 1 ? 544 : 30 + 2 * path.size());
    store(bytes, 0, version);
    store(bytes, 16, time);
    putPath(bytes, version == 1 ? 24 : 28, path);
    return bytes;
}

/// An "INFO2" with one record.
Bytes list(std::uint32_t number, std::uint32_t drive, std::u16string_view path)
{
    Bytes bytes(820);
    store<std::uint32_t>(bytes, 12, 800);
    store(bytes, 20 + 260, number);
    store(bytes, 20 + 264, drive);
    store(bytes, 20 + 268, deletion);
    putPath(bytes, 20 + 280, path);
    return bytes;
}

/// A volume with these files in one folder, as a scan shows it.
Parsed scanned(const std::vector<std::pair<std::u16string, Bytes>>& files)
{
    const TimeZone zone("UTC");
    Image image;
    image.putFolder(20, Image::root, u"bin");
    for (std::uint64_t number = 21; const auto& [name, content] : files)
        image.putFile(number++, { 20, 1 }, name, content);
    auto source = image.source();
    auto volumes = FullScan::run(*source, std::nullopt, nullptr);
    return { std::move(source), std::move(volumes.at(0)) };
}

} // namespace

TEST(RecycleBin, TellsWhereAFileLayBefore)
{
    const Bytes content = bytesOf("x");
    const struct {
        std::u16string indexName;
        Bytes index;
        std::u16string name;
        std::string path; ///< that is told; empty: none
    } cases[] = {
        { u"$IABC123.jpg", index(1, u"C:\\Billeder\\Sø.jpg"), u"$RABC123.jpg",
            "C:\\Billeder\\Sø.jpg" },
        { u"$IABC123.jpg", index(2, u"C:\\Billeder\\Sø.JPG"), u"$RABC123.jpg",
            "C:\\Billeder\\Sø.JPG" },
        { u"_IABC123.JPG", index(2, u"\\\\server\\a.jpg"), u"_RABC123.JPG", R"(\\server\a.jpg)" },
        { u"$IABC123", index(2, u"D:\\v1.2\\fil"), u"$RABC123", "D:\\v1.2\\fil" },
        { u"$IABC123.jpg", index(3, u"C:\\a.jpg"), u"$RABC123.jpg", "" },
        { u"$IABC123.jpg", index(2, u"C:\\a.jpg", 0), u"$RABC123.jpg", "" },
        { u"$IABC123.jpg", index(2, u"C:\\a.txt"), u"$RABC123.jpg", "" },
        { u"$IABC123.jpg", index(2, u"a.jpg"), u"$RABC123.jpg", "" },
        { u"$IABC123.jpg", index(2, u"C:\\a.jpg"), u"$RABC124.jpg", "" },
        { u"INFO2", list(12, 2, u"C:\\Breve\\Åse.doc"), u"Dc12.doc", "C:\\Breve\\Åse.doc" },
        { u"info2", list(12, 2, u"C:\\Breve\\Åse"), u"DC12", "C:\\Breve\\Åse" },
        { u"INFO2", list(12, 3, u"C:\\Breve\\Åse.doc"), u"Dc12.doc", "" },
        { u"INFO2", list(12, 200, u"C:\\Breve\\Åse.doc"), u"Dc12.doc", "" },
    };
    for (const auto& [indexName, index, name, path] : cases) {
        const auto disk = scanned({ { indexName, index }, { name, content } });
        const auto& files = disk.volume->root->children().at(0)->children();
        std::string note;
        for (const auto& file : files)
            note += file->note.value_or("");
        EXPECT_EQ(note, path.empty() ? "" : "Oprindelig sti: " + path + std::string(told)) << path;
        for (const auto& file : files)
            EXPECT_TRUE(!file->note || file->size == content.size()) << "the index itself";
    }
}

TEST(RecycleBin, TellsNothingOfFilesThatShareAName)
{
    const auto disk = scanned({ { u"$IABC123.txt", index(2, u"C:\\a.txt") },
        { u"$RABC123.txt", bytesOf("a") }, { u"$rabc123.TXT", bytesOf("b") },
        { u"$IABC124.txt", index(2, u"C:\\b.txt") }, { u"$RABC124.txt", bytesOf("c") } });
    EXPECT_FALSE(disk["/bin/$RABC123.txt"].note);
    EXPECT_FALSE(disk["/bin/$rabc123.TXT"].note);
    EXPECT_TRUE(disk["/bin/$RABC124.txt"].note);
}

TEST(RecycleBin, IsKnownOnCardsToo)
{
    setenv("TZ", "UTC", 1);
    const auto record = index(2, u"E:\\DCIM\\a.jpg");
    FATImage fat({ .type = FileSystemType::fat16 });
    const auto fatBin = fat.addFolder(FATImage::root, { .name = "BIN        " });
    fat.addFile(fatBin, { .name = "$IABC123JPG" }, record);
    fat.addFile(fatBin, { .name = "$RABC123JPG" }, bytesOf("x"));
    ExFATImage exfat;
    const auto bin = exfat.addFolder(exfat.root(), { .name = u"bin" });
    exfat.addFile(bin, { .name = u"$IABC123.jpg" }, record);
    exfat.addFile(bin, { .name = u"$RABC123.jpg" }, bytesOf("x"));
    const DiskImage* const images[] = { &fat, &exfat };
    for (const auto* image : images) {
        const auto source = image->source();
        const auto volumes = FullScan::run(*source, std::nullopt, nullptr);
        EXPECT_EQ(volumes.at(0)->root->allFiles().back()->note,
            "Oprindelig sti: E:\\DCIM\\a.jpg" + std::string(told));
    }
}
