#include "Tests/Support/DeepScan.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

#include <random>

using namespace NTFSTestVolume;

namespace {

constexpr FileReference lostFolder { 30, 4 };
constexpr std::string_view orphans = "/$Forældreløse filer";

/// A volume with a file whose folder has no record, and a deleted one without a name, record 21 of
/// the same folder.
Image volumeWithOrphans()
{
    Image image;
    image.putFile(20, lostFolder, u"brev.txt", bytesOf("kære"));
    image.put(
        21, { .inUse = false, .sequence = 8, .attributes = { Image::data(bytesOf("foto")) } });
    image.putFolder(22, root, u"mappe");
    return image;
}

/// A journal of so many pages of a hole, these entries, and rubbish behind them.
void putJournal(Image& image, std::uint64_t hole, const std::vector<Bytes>& entries)
{
    Bytes pages;
    for (const auto& entry : entries)
        pages = joined({ pages, entry });
    pages.resize(4096, 0xA5);
    const auto runs = image.store(pages);
    const std::uint64_t size = (hole + 1) * 4096;
    auto stream = Image::data(
        { .runs = { { std::nullopt, hole * 4 }, runs[0] }, .size = size, .flags = 0x8000 });
    image.put(24,
        { .attributes = { Image::fileName({ 11, 11 }, u"$UsnJrnl", 3),
              Image::withName(std::move(stream), u"$J") } });
}

void putIndex(Image& image, const Bytes& block)
{
    image.put(22,
        { .isDirectory = true,
            .attributes = { Image::standardInformation(), Image::fileName(root, u"mappe"),
                Image::withName(
                    Image::nonResident(0xA0, { .runs = image.store(block), .size = block.size() }),
                    u"$I30") } });
}

} // namespace

TEST(NTFSFormerNames, OfOrphansAreTakenFromWhatStillKnowsThem)
{
    const auto entry = Image::journalEntry;
    using Entries = std::vector<Image::IndexEntry>;
    const FileReference photo { 21, 7 };
    const std::string place(orphans), folder = place + "/Papirer";
    const std::string unknown
        = " " + place + " " + place + "/brev.txt " + place + "/unavngivet-21 /mappe";
    const std::string known
        = " " + place + " " + folder + " " + folder + "/brev.txt " + folder + "/foto.jpg /mappe";
    const auto oldName = entry(2, lostFolder, root, u"Ny mappe"),
               name = entry(2, lostFolder, root, u"Papirer"),
               photoName = entry(2, photo, lostFolder, u"foto.jpg");
    const Image::IndexEntry inIndex { lostFolder, root, u"Papirer" },
        photoInIndex { photo, lostFolder, u"foto.jpg" },
        shortName { lostFolder, root, u"PAPIR~1", 2 }, other { { 40, 1 }, root, u"bliver" },
        olderName { lostFolder, root, u"Gammelt navn" };
    const struct {
        const char* what;
        std::vector<Bytes> journal;
        Entries index;
        std::size_t removed;
        std::string expected;
    } rows[] = {
        { "nothing", {}, {}, 0, unknown },
        { "the newest entries of the journal", { oldName, photoName, name }, {}, 0, known },
        { "wide references",
            { entry(3, lostFolder, root, u"Papirer"), entry(3, photo, lostFolder, u"foto.jpg") },
            {}, 0, known },
        { "other records of these numbers, and an unknown version",
            { entry(2, { 30, 5 }, root, u"Andet"), entry(2, { 21, 8 }, lostFolder, u"andet"),
                entry(4, lostFolder, root, u"ukendt") },
            {}, 0, unknown },
        { "what was removed from it", {}, { other, inIndex, photoInIndex }, 2, known },
        { "long names before short ones", {}, { shortName, inIndex, shortName, photoInIndex }, 0,
            known },
        { "a folder that is left", { entry(2, photo, { 22, 1 }, u"foto.jpg") }, {}, 0,
            " " + place + " " + place + "/brev.txt /mappe /mappe/foto.jpg" },
        { "the journal before an index", { name, photoName }, { olderName }, 0, known },
    };
    for (const auto& [what, journal, index, removed, expected] : rows) {
        auto image = volumeWithOrphans();
        if (!journal.empty())
            putJournal(image, 2, journal);
        if (!index.empty())
            putIndex(image, Image::indexBlock(index, removed));
        EXPECT_EQ(parse(image).names(), expected) << what;
    }
    auto damaged = Image::indexBlock({ inIndex, photoInIndex });
    damaged[1022] ^= 1;
    auto image = volumeWithOrphans();
    putIndex(image, damaged);
    EXPECT_EQ(parse(image).names(), unknown);
}

TEST(NTFSFormerNames, AreReadOnlyForOrphans)
{
    const auto bytesRead = [](FileReference folder) {
        Image image({ .clusters = 6000 });
        image.putFile(20, folder, u"brev.txt", bytesOf("kære"));
        image.store(Bytes(1_MiB), false); // nothing else is read near the journal
        putJournal(image, 100, { Image::journalEntry(2, { 9, 9 }, root, u"andet") });
        image.store(Bytes(1_MiB), false);
        return parse(image).source->bytesRead();
    };
    EXPECT_LT(bytesRead(root), bytesRead(lostFolder));
}

TEST(NTFSFormerNames, InLooseBlocksOfIndicesServeRebuiltVolumes)
{
    auto image = volumeWithOrphans();
    const auto block = Image::indexBlock({ { lostFolder, root, u"Papirer" } });
    image.store(block, false);
    image.bytes()[3] = 0; // no boot sector, and no record of the MFT itself
    erase(image.bytes(), image.recordOffset(0), image.recordOffset(0) + 1024);
    erase(image.bytes(), image.offsetOf(image.mirrorLCN()), image.bytes().size());
    const Found found(image.bytes());
    EXPECT_EQ(found.count("/Papirer/brev.txt", bytesOf("kære")), 1);
}

TEST(NTFSFormerNames, OutliveDamagedJournalsAndIndices)
{
    auto sound = volumeWithOrphans();
    putJournal(sound, 1,
        { Image::journalEntry(2, lostFolder, root, u"Papirer"),
            Image::journalEntry(3, { 21, 7 }, lostFolder, u"foto.jpg") });
    const auto journal = sound.bytes();
    putIndex(sound, Image::indexBlock({ { lostFolder, root, u"Papirer" } }, 1));
    std::mt19937 random(17);
    const auto entry = bytesOf(std::string("\x50\0\0\0\2", 5));
    const auto from
        = std::search(journal.begin(), journal.end(), entry.begin(), entry.end()) - journal.begin();
    ASSERT_LT(static_cast<std::size_t>(from), journal.size());
    for (int round = 0; round < 1000; ++round) {
        auto image = sound;
        for (auto count = 1 + random() % 6; count > 0; --count)
            image.bytes()[static_cast<std::size_t>(from) + random() % 4600]
                = static_cast<std::uint8_t>(random() % 2 == 0 ? random() : 0xFF);
        const auto disk = parse(image);
        ASSERT_LE(disk.volume->root->totals().files, 3u);
        ASSERT_LT(disk.source->bytesRead(), 4 * image.bytes().size());
    }
}
