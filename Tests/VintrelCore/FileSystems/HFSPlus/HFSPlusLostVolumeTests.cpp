#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/Scanning/DeepScan.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr std::uint64_t partition = 32'256; // where old systems put the first one
constexpr std::uint32_t blocks = 2000;

/// The smallest file that is found by its content and by its name.
Bytes gifFile()
{
    return { 'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 0, 0, 0, 255, 255, 255, 0x2C, 0,
        0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 0x44, 1, 0, 0x3B };
}

/// A disk with a volume of three files, one of them deleted, and both headers. `isKnown`: the files
/// are pictures, and can be told by their content.
Bytes diskWithFiles(bool isKnown = true)
{
    HFSPlusImage image(false, blocks);
    const auto picture = [&](const char16_t* name, std::uint32_t id, std::uint32_t block) {
        if (isKnown)
            image.write(HFSPlusImage::offsetOf(block), gifFile());
        image.setAllocated(block);
        return HFSPlusImage::Record {
            .parent = 2, .name = name, .id = id, .size = gifFile().size(), .runs = { { block, 1 } }
        };
    };
    image.setLeaf(2,
        { { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true },
            picture(u"en.gif", 20, 1000) });
    image.setLeaf(3, { picture(u"to.gif", 21, 1207) });
    image.setLeaf(5, { picture(u"slettet.gif", 22, 1500) });
    image.chain({ 2, 3 });
    image.stateLeaves({ 2, 3 });
    auto& volume = image.bytes();
    Bytes disk(partition + volume.size() + 4096);
    std::ranges::copy(volume, disk.begin() + partition);
    const auto end = static_cast<std::ptrdiff_t>(partition + volume.size());
    std::copy_n(volume.begin() + 1024, 512, disk.begin() + end - 1024);
    return disk;
}

/// What a deep scan finds: the volume's place and origin, and its files that exist and have
/// their content.
std::string found(const Bytes& disk, const Bytes& content = gifFile())
{
    const auto source = makeSource(disk);
    const auto known = QuickScanner::run(*source, nullptr).volumes;
    const auto sweep = DeepScanner(*source).run(nullptr);
    std::string text;
    for (const auto& volume : DeepScanner::buildVolumes(*source, sweep, known, nullptr)) {
        text += std::to_string(volume->offset) + " " + volume->origin + ":";
        for (const auto* file : volume->root->allFiles())
            text += (file->status == EntryStatus::existing ? " " : " -") + file->name
                + (FileReader::readPrefix(*file, *source, 1000) == content ? "" : "?");
        text += "; ";
    }
    return text;
}

} // namespace

TEST(HFSPlusLostVolumes, AreFoundByWhateverIsLeftOfHeadersAndCatalog)
{
    constexpr std::uint64_t primary = partition + 1024;
    constexpr std::uint64_t alternate = partition + blocks * HFSPlusImage::blockSize - 1024;
    constexpr std::uint64_t catalog = partition + HFSPlusImage::nodeOffset(0);
    const std::string place = std::to_string(partition) + " Dyb scanning, ";
    const std::string live = ": en.gif -slettet.gif to.gif; ";
    const std::string all = ": en.gif slettet.gif to.gif; ";
    const std::string byPrimary = place + "volumeheader ved " + std::to_string(primary);
    const struct {
        const char* what;
        std::vector<std::uint64_t> lost;   // sectors
        std::optional<std::uint64_t> copy; // of the primary header
        std::string expected;
    } rows[] = {
        { "nothing is lost", {}, {}, byPrimary + live },
        { "the primary header", { primary }, {}, place + "sikkerhedskopi af volumeheader" + live },
        { "the catalog's header node", { catalog, catalog + 512 }, {},
            place + "volumeheader uden katalogets begyndelse" + all },
        { "this and the primary header", { primary, catalog, catalog + 512 }, {},
            place + "volumeheader uden katalogets begyndelse" + all },
        { "both headers, of which the journal has a copy", { primary, alternate },
            partition + 1800 * 512, place + "kopi af volumeheader" + live },
        { "both headers", { primary, alternate }, {},
            place + "katalog ved " + std::to_string(catalog) + live },
        { "all of these", { primary, alternate, catalog, catalog + 512 }, {},
            place + "katalog ved " + std::to_string(catalog + 1024) + all },
    };
    for (const auto& [what, lost, copy, expected] : rows) {
        auto disk = diskWithFiles();
        const auto at = [&](std::uint64_t offset) {
            return disk.begin() + static_cast<std::ptrdiff_t>(offset);
        };
        if (copy)
            std::copy_n(at(primary), 512, at(*copy));
        for (const auto sector : lost)
            std::fill_n(at(sector), 512, std::uint8_t { 0 });
        EXPECT_EQ(found(disk), expected) << what;
    }
}

TEST(HFSPlusLostVolumes, TakeTheirPlaceFromTheMapOfBlocksWhereNoContentSpeaksForOne)
{
    const auto map = partition + HFSPlusImage::offsetOf(HFSPlusImage::allocationBlock);
    const auto place = std::to_string(partition) + " Dyb scanning, katalog ved "
        + std::to_string(partition + HFSPlusImage::nodeOffset(0))
        + ": en.gif -slettet.gif to.gif; ";
    const struct {
        const char* what;
        std::uint64_t at, length; // bytes that are changed
        std::uint8_t value;
        std::string expected;
    } rows[] = {
        { "nothing", 0, 0, 0, place },
        { "the map calls a file's block free", map + 1207 / 8, 1, 0, "" },
        { "it calls the catalog free", map + 20 / 8, 1, 0, "" },
        { "it calls everything used", map, 512, 0xFF, "" },
    };
    for (const auto& [what, at, length, value, expected] : rows) {
        auto disk = diskWithFiles(false);
        for (const auto lost : { std::uint64_t { 1024 }, blocks * HFSPlusImage::blockSize - 1024 })
            std::fill_n(disk.begin() + static_cast<std::ptrdiff_t>(partition + lost), 512,
                std::uint8_t { 0 });
        std::fill_n(disk.begin() + static_cast<std::ptrdiff_t>(at), length, value);
        EXPECT_EQ(found(disk, Bytes(gifFile().size())), expected) << what;
    }
}

TEST(HFSPlusLostVolumes, ACatalogIsReadOnceWhateverHeadersLeadToIt)
{
    auto disk = diskWithFiles();
    // Headers of volumes that begin before this one, with its catalog: primary and alternate ones.
    for (std::uint64_t sector = 4; sector <= 40; ++sector) {
        const auto start = partition - sector * 512;
        for (const auto at : { start + 1024, partition + (1600 + sector) * 512 }) {
            std::copy_n(disk.begin() + partition + 1024, 512,
                disk.begin() + static_cast<std::ptrdiff_t>(at));
            putBE(disk, at + 44, (partition + (1600 + sector) * 512 + 1024 - start) / 512, 4);
            putBE(disk, at + 272 + 16, HFSPlusImage::nodeOffset(0) / 512 + sector, 4);
        }
    }
    const auto text = found(disk);
    EXPECT_EQ(std::ranges::count(text, ';'), 1) << text;
}

TEST(HFSPlusLostVolumes, AddsDeletedFilesThatOnlyLeavesInTheJournalName)
{
    using Record = HFSPlusImage::Record;
    HFSPlusImage image(false, blocks);
    image.setLeaf(2,
        { { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true },
            { .parent = 2, .name = u"mappe", .id = 30, .isFolder = true },
            { .parent = 30, .name = u"lever", .id = 31 } });
    image.chain({ 2 });
    // Leaves as a journal keeps them: made in the catalog, and moved.
    const auto keep = [&](std::uint32_t block, const std::vector<Record>& records) {
        image.setLeaf(6, records);
        const auto node = image.bytes().begin() + HFSPlusImage::nodeOffset(6);
        std::copy_n(node, HFSPlusImage::nodeSize,
            image.bytes().begin() + static_cast<std::ptrdiff_t>(HFSPlusImage::offsetOf(block)));
        std::fill_n(node, HFSPlusImage::nodeSize, std::uint8_t { 0 });
    };
    const auto deleted = [](std::uint32_t date, std::uint32_t block) {
        return Record { .parent = 30,
            .name = u"slettet",
            .id = 40,
            .modified = date,
            .size = 512,
            .runs = { { block, 1 } } };
    };
    keep(1801,
        { deleted(5, 1000), { .parent = 30, .name = u"lever før", .id = 31 },
            { .parent = 2, .name = u"gammel", .id = 41, .isFolder = true } });
    keep(1809,
        { deleted(6, 1001), { .parent = 41, .name = u"i den", .id = 42 },
            { .parent = 99, .name = u"uden", .id = 43 } });
    image.setAllocated(1001);
    const auto source = image.source();
    const auto known = QuickScanner::run(*source, nullptr).volumes;
    auto folders
        = DeepScanner::extraFolders(*source, known, DeepScanner(*source).run(nullptr), nullptr);
    ASSERT_EQ(folders.size(), 1u);
    known[0]->root->add(std::move(folders[0].folder));
    std::string text;
    known[0]->root->forEachDescendant([&](const FileNode& node, std::size_t) {
        text += (node.status == EntryStatus::deleted ? " -" : " ") + node.path()
            + (node.size > 0 ? " (" + chance(node) + ")" : "");
    });
    EXPECT_EQ(text,
        " -/gammel -/gammel/i den /mappe /mappe/lever -/mappe/slettet (Ringe: Blokkene er genbrugt "
        "af andre filer) /$Tabte katalogposter -/$Tabte katalogposter/uden");
}
