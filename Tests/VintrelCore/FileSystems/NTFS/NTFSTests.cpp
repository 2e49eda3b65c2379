#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

namespace {

using Image = NTFSImage;

constexpr auto root = Image::root;

/// Status, chance and note of a node in one text, for short expectations.
std::string fate(const FileNode& node)
{
    return std::string(label(node.status)) + ", " + chance(node);
}

Parsed parse(std::unique_ptr<DiskSource> source)
{
    auto volume = NTFSParser::parse(*source, 0, "prøve", nullptr);
    if (!volume)
        throw std::logic_error("no volume");
    return { std::move(source), std::move(volume) };
}

Parsed parse(const Image& image) { return parse(image.source()); }

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes firstOf(const Bytes& bytes, std::size_t count)
{
    return { bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count) };
}

/// A record with one name below the root, and these further attributes.
Image::Record named(std::u16string_view name, std::vector<Bytes> attributes, bool inUse = true)
{
    attributes.insert(
        attributes.begin(), { Image::standardInformation(), Image::fileName(root, name) });
    return { .inUse = inUse, .attributes = std::move(attributes) };
}

} // namespace

TEST(NTFS, Geometry)
{
    const struct {
        const char* what;
        std::uint64_t at;
        Bytes field;
        std::uint64_t clusterSize; ///< 0: refused
        std::uint64_t recordSize;
    } cases[] = {
        { "as it is", 0, {}, 1024, 1024 },
        { "another system", 3, bytesOf("EXFAT   "), 0, 0 },
        { "odd sectors", 11, { 0x01, 0x03 }, 0, 0 },
        { "sectors of 4096", 11, { 0x00, 0x10 }, 8192, 1024 },
        { "129 mean none", 13, { 129 }, 0, 0 },
        { "2^12 of them", 13, { 0xF4 }, 2'097'152, 1024 },
        { "2^13 of them", 13, { 0xF3 }, 0, 0 },
        { "two clusters in a record", 64, { 2 }, 1024, 2048 },
        { "records of 2^8", 64, { 0xF8 }, 0, 0 },
        { "records of 2^17", 64, { 0xEF }, 0, 0 },
    };
    for (const auto& [what, at, field, clusterSize, recordSize] : cases) {
        Image image;
        image.write(at, field);
        const auto geometry = NTFSGeometry::from(ByteView(image.bytes()).sub(0, 512), 0);
        EXPECT_EQ(geometry ? geometry->clusterSize : 0, clusterSize) << what;
        EXPECT_EQ(geometry ? geometry->recordSize : 0, recordSize) << what;
    }
}

TEST(NTFS, RunLists)
{
    const struct {
        const char* what;
        Bytes list;
        RunList runs;
    } cases[] = {
        { "one run", { 0x21, 0x18, 0x34, 0x56, 0x00 }, { { 0x5634, 0x18 } } },
        { "sparse between", { 0x11, 0x02, 0x10, 0x01, 0x05, 0x11, 0x03, 0xF8, 0x00 },
            { { 0x10, 2 }, { std::nullopt, 5 }, { 0x08, 3 } } },
        { "negative place", { 0x11, 0x02, 0x10, 0x11, 0x02, 0xEF, 0x00 }, { { 0x10, 2 } } },
        { "no end mark", { 0x11, 0x02, 0x10 }, { { 0x10, 2 } } },
        { "cut", { 0x11, 0x02, 0x10, 0x22, 0x01, 0x02, 0x03 }, { { 0x10, 2 } } },
        { "offset of nine bytes", { 0x91, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0 }, {} },
        { "2^40 clusters", { 0x06, 0, 0, 0, 0, 0, 1 }, {} },
        { "the sum of two offsets overflows",
            { 0x81, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x11, 1, 1, 0x00 },
            { { 0x7FFFFFFFFFFFFFFF, 1 } } },
    };
    for (const auto& [what, list, runs] : cases)
        EXPECT_EQ(NTFSParser::decodeRuns(list), runs) << what;
}

TEST(NTFS, Records)
{
    Image image;
    image.put(20,
        { .sequence = 7,
            .attributes = { Image::standardInformation(0, 200'000'000'000'000'000),
                Image::fileName(root, u"LANGTN~1.TXT", 2),
                Image::fileName({ 40, 3 }, u"Langt navn æøå.txt", 1, 12),
                Image::data(bytesOf("hej")) } });
    const auto stored = ByteView(image.bytes())
                            .sub(static_cast<std::int64_t>(image.recordOffset(20)), 1024)
                            .span();
    const Bytes sound(stored.begin(), stored.end());
    EXPECT_TRUE(NTFSParser::looksLikeRecord(sound));
    const auto parsed = [](Bytes bytes, std::optional<std::uint64_t> number = {}) {
        MFTRecord record;
        return NTFSParser::parseRecord(bytes, number, record) ? std::optional(record)
                                                              : std::nullopt;
    };

    auto record = parsed(sound);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->number, 20u);
    EXPECT_EQ(record->sequence, 7);
    EXPECT_TRUE(record->inUse && !record->isDirectory && record->fixupOK);
    ASSERT_EQ(record->names.size(), 2u);
    EXPECT_EQ(record->bestName()->name, "Langt navn æøå.txt");
    EXPECT_EQ(record->bestName()->parent, (FileReference { 40, 3 }));
    EXPECT_FALSE(record->created) << "0 is no date";
    EXPECT_FALSE(record->modified) << "nor is a time after 2100";
    ASSERT_EQ(record->data.size(), 1u);
    EXPECT_EQ(record->data[0].resident, bytesOf("hej"));
    EXPECT_EQ(parsed(sound, 99)->number, 99u) << "the given number wins";

    const struct {
        const char* what;
        std::size_t at;
        Bytes change;
        bool isRecord, isSound, looksLike;
    } damages[] = {
        { "signature", 0, bytesOf("BAAD"), false, false, false },
        { "end of the second sector", 1022, { 0x35 }, true, false, true },
        { "no update sequence", 6, { 1, 0 }, true, false, false },
        { "update sequence past the end", 4, { 0xFE, 0x03 }, true, false, false },
        { "first attribute", 20, { 0, 2 }, true, true, false },
    };
    for (const auto& [what, at, change, isRecord, isSound, looksLike] : damages) {
        auto bytes = sound;
        std::ranges::copy(change, bytes.begin() + static_cast<std::ptrdiff_t>(at));
        EXPECT_EQ(NTFSParser::looksLikeRecord(bytes), looksLike) << what;
        record = parsed(bytes);
        EXPECT_EQ(record.has_value(), isRecord) << what;
        EXPECT_EQ(record && record->fixupOK, isSound) << what;
    }
}

TEST(NTFS, ListsAndReadsTheLiveTree)
{
    Image image;
    const auto photo = patternBytes(5000);
    image.putFolder(20, root, u"Billeder");
    image.putFile(21, { 20, 1 }, u"IMG_0001.JPG", photo);
    image.putFile(22, root, u"lille.txt", bytesOf("lille"));
    image.putFile(23, root, u"tom.txt", {});
    // Pieces in another order than the disk's, with a hole between.
    const auto first = image.store(firstOf(photo, 2048));
    const auto second = image.store(firstOf(photo, 1024));
    image.put(24,
        named(u"stykker.bin",
            { Image::data(
                { .runs = { second[0], { std::nullopt, 2 }, first[0] }, .size = 5000 }) }));
    // A hard link and a named stream add nothing; $Extend and what is below it are the system's.
    auto stream = Image::data(bytesOf("x"));
    stream[9] = 4;
    image.put(25,
        { .attributes = { Image::standardInformation(), Image::fileName({ 20, 1 }, u"Navn.txt"),
              Image::fileName(root, u"Andet navn.txt"), stream, Image::data(bytesOf("hej")) } });
    image.putFolder(30, { 11, 11 }, u"$RmMetadata");
    image.putFile(31, { 30, 1 }, u"$TxfLog", bytesOf("x"));
    image.putFile(8, root, u"$BadClus", bytesOf("x"));
    image.put(
        32, { .attributes = { Image::standardInformation(), Image::data(bytesOf("uden navn")) } });

    const auto disk = parse(image);
    EXPECT_EQ(disk.volume->type, FileSystemType::ntfs);
    EXPECT_EQ(disk.volume->title(), "Data (NTFS)");
    EXPECT_EQ(disk.volume->origin, "prøve");
    EXPECT_EQ(disk.volume->clusterSize, 1024u);
    EXPECT_EQ(disk.volume->size, image.bytes().size());
    EXPECT_TRUE(disk.volume->notes.empty());
    EXPECT_EQ(disk.names(),
        " /Billeder /Billeder/IMG_0001.JPG /Billeder/Navn.txt /lille.txt /stykker.bin /tom.txt");
    EXPECT_EQ(disk.content("/Billeder/IMG_0001.JPG"), photo);
    EXPECT_EQ(disk.content("/Billeder/Navn.txt"), bytesOf("hej"));
    EXPECT_EQ(disk.content("/lille.txt"), bytesOf("lille"));
    EXPECT_EQ(disk.content("/stykker.bin"),
        joined({ firstOf(photo, 1024), Bytes(2048), firstOf(photo, 1928) }));
    for (const auto* path : { "/Billeder/IMG_0001.JPG", "/lille.txt", "/stykker.bin", "/tom.txt" })
        EXPECT_EQ(fate(disk[path]), "Eksisterende, God") << path;
    const auto& node = disk["/Billeder/IMG_0001.JPG"];
    EXPECT_EQ(node.created, TimeConversion::fromFiletime(Image::creation));
    EXPECT_EQ(node.modified, TimeConversion::fromFiletime(Image::modification));
    EXPECT_EQ(node.fsID, 21u);
}

TEST(NTFS, ChancesOfDeletedFiles)
{
    Image image;
    const auto content = patternBytes(5000); // five clusters
    const auto stored = [&](std::initializer_list<std::uint64_t> reused, std::uint16_t flags = 0) {
        const auto runs = image.store(content, false);
        for (const auto cluster : reused)
            image.markUsed(*runs[0].lcn + cluster, 1);
        return Image::data({ .runs = runs, .size = 5000, .flags = flags });
    };
    const auto shortOf = [&](std::uint64_t size) {
        auto runs = image.store(firstOf(content, 2048), false);
        return Image::data({ .runs = runs, .size = size });
    };
    const std::string reused = "Klyngerne er genbrugt af andre filer";
    const std::string missing = "Dele af filens placering mangler";
    const std::string encrypted = "EFS-krypteret – kan ikke dekrypteres";
    const std::string damaged = "MFT-posten er delvist beskadiget";
    struct Case {
        std::u16string name;
        std::vector<Bytes> attributes;
        std::string fate;
        bool isDamaged = false;
    };
    const std::vector<Case> cases = {
        { u"hjemme", { Image::data(bytesOf("x")) }, "God" },
        { u"fri", { stored({}) }, "God" },
        { u"to af fem", { stored({ 1, 4 }) }, "Delvis" },
        { u"tre af fem", { stored({ 1, 2, 4 }) }, "Ringe: " + reused },
        { u"den første", { stored({ 0 }) }, "Ringe: " + reused },
        { u"uden data", {}, "Ringe: Dataattributten mangler" },
        { u"efs", { stored({}, 0x4000) }, "Ringe: " + encrypted },
        { u"efs genbrugt", { stored({ 0 }, 0x4000) }, "Ringe: " + reused + "; " + encrypted },
        { u"kort", { shortOf(5000) }, "Delvis: " + missing },
        { u"beskadiget", { stored({}) }, "Delvis: " + damaged, true },
        { u"beskadiget genbrugt", { stored({ 0 }) }, "Ringe: " + reused + "; " + damaged, true },
    };
    std::uint64_t number = 20;
    for (const auto& row : cases) {
        image.put(number, named(row.name, row.attributes, false));
        if (row.isDamaged)
            image.bytes()[image.recordOffset(number, 510)] ^= 1;
        ++number;
    }
    const auto disk = parse(image);
    number = 20;
    for (const auto& row : cases) {
        const auto& nodes = disk.volume->root->children();
        const auto node
            = std::ranges::find(nodes, number++, [](const auto& child) { return child->fsID; });
        ASSERT_NE(node, nodes.end()) << row.fate;
        EXPECT_EQ(fate(**node), "Slettet, " + row.fate) << (*node)->name;
    }
    EXPECT_EQ(disk.content("/fri"), content);
    EXPECT_EQ(disk.content("/kort"), joined({ firstOf(content, 2048), Bytes(2952) }));

    // Files that exist are not measured by the bitmap, and doubts about them are told all the same.
    image.put(20, named(u"hel", { stored({ 0, 1, 2, 3, 4 }) }));
    image.put(21, named(u"halv", { shortOf(5000) }));
    const auto again = parse(image);
    EXPECT_EQ(fate(again["/hel"]), "Eksisterende, God");
    EXPECT_EQ(fate(again["/halv"]), "Eksisterende, Delvis: " + missing);
}

TEST(NTFS, BitmapThatCannotBeRead)
{
    Image image({ .clusterSize = 512, .clusters = 9000 }); // the bitmap has three sectors
    const auto content = patternBytes(1500);
    const auto put = [&](std::uint64_t number, std::u16string_view name, std::uint64_t lcn) {
        image.put(
            number, named(name, { Image::data({ .runs = { { lcn, 3 } }, .size = 1500 }) }, false));
    };
    put(20, u"a", 4000);
    put(21, u"b", 4095); // its bits lie in two sectors
    put(22, u"c", 8192);
    put(23, u"d", 5000);
    image.markUsed(5000, 1);
    const auto fates = [&](const std::function<void(DiskSource&)>& damage) {
        auto source = image.source();
        damage(*source);
        const auto disk = parse(std::move(source));
        std::string fates;
        for (const auto* path : { "/a", "/b", "/c", "/d" })
            fates += std::string(label(disk[path].recoverability)) + " ";
        return fates;
    };
    const std::uint64_t bitmap = image.offsetOf(image.bitmapLCN());
    EXPECT_EQ(fates([](DiskSource&) {}), "God God God Ringe ");
    EXPECT_EQ(fates([&](DiskSource& source) {
        source.addSimulatedBadRange({ bitmap + 512, bitmap + 513 });
    }),
        "God Ukendt God Ukendt ");
    EXPECT_EQ(fates([&](DiskSource& source) {
        source.addSimulatedBadRange({ image.recordOffset(6), image.recordOffset(7) });
    }),
        "Ukendt Ukendt Ukendt Ukendt ");
}

TEST(NTFS, ParentsAreTrustedOnlyWhileTheirSlotIsTheirs)
{
    const struct {
        const char* what;
        FileReference parent;
        bool isTrusted;
    } cases[] = {
        { "a folder in use", { 20, 4 }, true },
        { "a slot in use that was used again", { 20, 3 }, false },
        { "a deleted folder", { 21, 7 }, true },
        { "a deleted folder, twice", { 21, 6 }, false },
        { "a deleted folder whose count went from FFFF to 1", { 23, 0xFFFF }, true },
        { "a file", { 22, 1 }, false },
        { "far beyond the MFT", { 0xFFFFFFFFFFFF, 1 }, false },
        { "itself", { 30, 1 }, false },
        { "a system file", { 3, 3 }, false },
        { "the root, whatever it was", { 5, 77 }, true },
    };
    for (const auto& [what, parent, isTrusted] : cases) {
        Image image;
        image.putFolder(20, root, u"mappe", true, 4);
        image.putFolder(21, root, u"slettet", false, 8);
        image.putFile(22, root, u"fil", {});
        image.putFolder(23, root, u"rundt", false, 1);
        image.putFile(30, parent, u"barn", bytesOf("x"), false);
        const auto disk = parse(image);
        const bool isOrphan = disk.names().find("/$Forældreløse filer/barn") != std::string::npos;
        EXPECT_EQ(!isOrphan, isTrusted) << what << ":" << disk.names();
    }
}

TEST(NTFS, OrphansKeepTheirSubtree)
{
    Image image;
    image.putFolder(20, { 50, 9 }, u"øverst");
    image.putFolder(21, { 20, 1 }, u"midt", false, 2);
    image.putFile(22, { 21, 1 }, u"nederst", bytesOf("x"), false);
    image.putFolder(23, { 24, 1 }, u"løkke A");
    image.putFolder(24, { 23, 1 }, u"løkke B");
    image.putFile(25, { 24, 1 }, u"i løkken", bytesOf("x"));
    image.put(26, { .inUse = false, .attributes = { Image::data(bytesOf("uden navn")) } });
    image.put(27, { .inUse = false, .attributes = { Image::data(Bytes {}) } });
    // The best name's folder is gone, another one is there.
    image.put(28,
        { .attributes
            = { Image::fileName({ 50, 9 }, u"Væk.txt"), Image::fileName({ 50, 9 }, u"VÆK~1.TXT", 2),
                Image::fileName({ 20, 1 }, u"Her.txt"), Image::data(bytesOf("x")) } });
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(),
        " /$Forældreløse filer /$Forældreløse filer/løkke A /$Forældreløse filer/løkke A/løkke B"
        " /$Forældreløse filer/løkke A/løkke B/i løkken /$Forældreløse filer/øverst /$Forældreløse "
        "filer/øverst/midt"
        " /$Forældreløse filer/øverst/midt/nederst /$Forældreløse filer/øverst/Her.txt"
        " /$Forældreløse filer/unavngivet-26");
    const std::string folder = "/$Forældreløse filer";
    EXPECT_EQ(disk[folder].status, EntryStatus::orphaned);
    EXPECT_EQ(disk[folder + "/øverst"].status, EntryStatus::existing);
    EXPECT_EQ(disk[folder + "/øverst/midt"].status, EntryStatus::deleted);
    EXPECT_EQ(disk.content(folder + "/unavngivet-26"), bytesOf("uden navn"));

    // As deep as the MFT is long: nothing recurses.
    Image deep({ .clusters = 20'100, .records = 20'000 });
    for (std::uint64_t number = 20; number < 20'000; ++number)
        deep.putFolder(number, { number + 1, 1 }, u"d");
    EXPECT_EQ(parse(deep).volume->root->totals().folders, 19'981u);
}

TEST(NTFS, AttributeLists)
{
    const auto content = patternBytes(6000);
    enum class Kind { resident, nonResident };
    for (const auto kind : { Kind::resident, Kind::nonResident }) {
        SCOPED_TRACE(kind == Kind::resident ? "resident" : "not resident");
        Image image;
        const auto first = image.store(firstOf(content, 2048));
        image.store(Bytes(1024));
        const auto second = image.store({ content.begin() + 2048, content.end() });
        const auto base = [&](std::uint64_t number, std::vector<Image::ListEntry> entries,
                              bool inUse = true) {
            entries.insert(entries.begin(), { { 0x10, { number, 1 } }, { 0x80, { number, 1 } } });
            const auto list = Image::listContent(entries);
            image.put(number,
                { .inUse = inUse,
                    .attributes = { Image::standardInformation(),
                        kind == Kind::resident
                            ? Image::attribute(0x20, list)
                            : Image::nonResident(
                                0x20, { .runs = image.store(list), .size = list.size() }),
                        Image::fileName(root,
                            u"fil" + std::u16string(1, static_cast<char16_t>(u'A' + number - 20))),
                        Image::data({ .runs = first, .size = 6000 }) } });
        };
        const auto extension = [&](std::uint64_t number, FileReference of, std::uint16_t sequence,
                                   bool inUse = true) {
            image.put(number,
                { .inUse = inUse,
                    .sequence = sequence,
                    .base = of,
                    .attributes = { Image::data({ .runs = second, .startVCN = 2 }) } });
        };
        base(20, { { 0x80, { 40, 3 }, 2 }, { 0x80, { 40, 3 }, 2 } }); // named twice, added once
        extension(40, { 20, 1 }, 3);
        base(21, { { 0x80, { 41, 3 }, 2 } }); // the slot was used again
        extension(41, { 21, 1 }, 4);
        base(22, { { 0x80, { 42, 3 }, 2 } }, false); // deleted, which raises both
        image.bytes()[image.recordOffset(22, 16)] = 2;
        extension(42, { 22, 1 }, 4, false);
        base(23, { { 0x80, { 40, 3 }, 2 } }); // somebody else's
        // Names in an extension count, and a gap before a fragment stays one.
        const auto list = Image::listContent(
            { { 0x30, { 44, 1 } }, { 0x80, { 45, 1 }, 4 }, { 0x80, { 24, 1 } } });
        image.put(24,
            { .attributes
                = { Image::attribute(0x20, list), Image::data({ .runs = first, .size = 8000 }) } });
        image.put(44,
            { .base = { 24, 1 }, .attributes = { Image::fileName(root, u"navn fra udvidelsen") } });
        image.put(45,
            { .base = { 24, 1 },
                .attributes = { Image::data({ .runs = second, .startVCN = 4 }) } });

        const auto disk = parse(image);
        EXPECT_EQ(disk.names(), " /filA /filB /filC /filD /navn fra udvidelsen");
        EXPECT_EQ(fate(disk["/filA"]), "Eksisterende, God");
        EXPECT_EQ(disk.content("/filA"), content);
        EXPECT_EQ(fate(disk["/filB"]), "Eksisterende, Delvis: Dele af filens placering mangler");
        EXPECT_EQ(disk.content("/filB"), joined({ firstOf(content, 2048), Bytes(3952) }));
        EXPECT_EQ(disk.content("/filC"), content);
        EXPECT_EQ(fate(disk["/filD"]), fate(disk["/filB"]));
        EXPECT_EQ(fate(disk["/navn fra udvidelsen"]),
            "Eksisterende, Delvis: Dele af filens placering mangler");
        EXPECT_EQ(disk.content("/navn fra udvidelsen"),
            joined({ firstOf(content, 2048), Bytes(2048),
                { content.begin() + 2048, content.begin() + 5952 } }));
    }
}

TEST(NTFS, TheMFTIsFoundByItsCopyToo)
{
    const std::string mirrorNote = "$MFT-posten var beskadiget – $MFTMirr blev brugt.";
    const std::string fixupNote = "$MFT-posten har fejl i opdateringssekvensen.";
    const struct {
        const char* what;
        std::function<void(Image&)> damage;
        std::optional<std::vector<std::string>> notes; ///< none: no volume
    } cases[] = {
        { "sound", [](Image&) {}, std::vector<std::string> {} },
        { "record gone", [](Image& image) { image.write(image.recordOffset(0), Bytes(1024)); },
            { { mirrorNote } } },
        { "a sector of the record is older",
            [](Image& image) { image.bytes()[image.recordOffset(0, 510)] ^= 1; },
            { { fixupNote } } },
        { "both gone",
            [](Image& image) {
                image.write(image.recordOffset(0), Bytes(1024));
                image.write(image.offsetOf(image.mirrorLCN()), Bytes(1024));
            },
            std::nullopt },
    };
    for (const auto& [what, damage, notes] : cases) {
        Image image;
        image.putFile(20, root, u"fil", bytesOf("x"));
        damage(image);
        const auto source = image.source();
        const auto result = QuickScanner::run(*source, nullptr);
        EXPECT_EQ(result.volumes.size(), notes ? 1u : 0u) << what;
        if (notes && !result.volumes.empty()) {
            EXPECT_EQ(result.volumes[0]->notes, *notes) << what;
            EXPECT_EQ(result.volumes[0]->root->totals().files, 1u) << what;
        }
    }
}

TEST(NTFS, AnMFTInPieces)
{
    // Clusters smaller than records, and pieces of odd length: records lie across them.
    Image pieces({ .clusterSize = 512,
        .clusters = 900,
        .records = 40,
        .mft = { { 16, 45 }, { 100, 7 }, { 110, 28 } } });
    // Extension records of the MFT, one of which lies in the piece that the other one describes.
    Image chained({ .clusterSize = 512,
        .clusters = 900,
        .records = 60,
        .mft = { { 16, 48 }, { 100, 40 }, { 200, 32 } } });
    const auto list = Image::listContent(
        { { 0x80, { 0, 1 } }, { 0x80, { 30, 1 }, 88 }, { 0x80, { 20, 1 }, 48 } });
    chained.put(20,
        { .base = { 0, 1 },
            .attributes = { Image::data({ .runs = { { 100, 40 } }, .startVCN = 48 }) } });
    chained.put(30,
        { .base = { 0, 1 },
            .attributes = { Image::data({ .runs = { { 200, 32 } }, .startVCN = 88 }) } });
    chained.put(0,
        { .attributes = { Image::attribute(0x20, list),
              Image::data({ .runs = { { 16, 48 } }, .size = 61'440 }) } });
    for (auto* image : { &pieces, &chained }) {
        for (const std::uint64_t number : { 21u, 22u, 23u, 25u, 26u, 38u, 39u })
            image->putFile(number, root,
                u"fil " + std::u16string(1, static_cast<char16_t>(u'A' + number)), bytesOf("x"));
        const auto disk = parse(*image);
        EXPECT_EQ(disk.volume->root->totals().files, 7u) << disk.names();
        for (const auto& node : disk.volume->root->children())
            EXPECT_EQ(fate(*node), "Eksisterende, God");
    }
}

TEST(NTFS, WhatWasNeverWrittenIsZeros)
{
    Image image;
    const auto content = patternBytes(4096);
    const auto runs = image.store(content);
    image.put(
        20, named(u"halv", { Image::data({ .runs = runs, .size = 4000, .initSize = 1500 }) }));
    image.put(21, named(u"intet", { Image::data({ .runs = runs, .size = 4000, .initSize = 0 }) }));
    image.put(
        22, named(u"mere", { Image::data({ .runs = runs, .size = 4000, .initSize = 9000 }) }));
    image.put(23,
        named(u"pakket",
            { Image::data({ .runs = runs,
                .size = 4000,
                .initSize = 1500,
                .flags = 1,
                .compressionUnit = 2 }) }));
    // A unit of four clusters stored in one: a chunk that repeats its letter.
    const auto packed = image.store({ 0x03, 0xB0, 0x02, 'a', 0xFC, 0x0F });
    image.put(24,
        named(u"pakket igen",
            { Image::data({ .runs = { packed[0], { std::nullopt, 3 } },
                .size = 4096,
                .flags = 1,
                .compressionUnit = 2 }) }));
    const auto disk = parse(image);
    for (const auto* path : { "/halv", "/pakket" }) {
        EXPECT_EQ(disk.content(path), joined({ firstOf(content, 1500), Bytes(2500) })) << path;
        EXPECT_EQ(fate(disk[path]), "Eksisterende, God") << path;
    }
    EXPECT_EQ(disk["/halv"].data,
        FileData(ExtentList { { image.offsetOf(*runs[0].lcn), 1500 }, { std::nullopt, 2500 } }));
    EXPECT_EQ(disk.content("/intet"), Bytes(4000));
    EXPECT_EQ(disk.content("/mere"), firstOf(content, 4000));
    EXPECT_EQ(disk.content("/pakket igen"), Bytes(4096, 'a'));
}

TEST(NTFS, AbsurdSizesAreCutToWhatTheVolumeCouldHold)
{
    Image image;
    const auto runs = image.store(patternBytes(1024));
    const std::uint64_t all = image.bytes().size();
    const struct {
        std::u16string name;
        Image::Data data;
        std::uint64_t size;
        bool isWhole;
    } cases[] = {
        { u"A", { .runs = runs, .size = std::uint64_t { 1 } << 60 }, all, false },
        { u"C",
            { .runs = { { *runs[0].lcn, (std::uint64_t { 1 } << 40) - 1 } },
                .size = std::uint64_t { 1 } << 50 },
            all, false },
        // A sparse file may be larger than its volume, as long as its runs say so and a system
        // could have made it.
        { u"D",
            { .runs = { runs[0], { std::nullopt, 9999 } }, .size = 10'240'000, .flags = 0x8000 },
            10'240'000, true },
        { u"F",
            { .runs = { { std::nullopt, (std::uint64_t { 1 } << 40) - 1 } },
                .size = std::uint64_t { 1 } << 49,
                .flags = 0x8000 },
            std::uint64_t { 1 } << 44, false },
    };
    std::uint64_t number = 20;
    for (const auto& row : cases)
        image.put(number++, named(row.name, { Image::data(row.data) }));
    const auto disk = parse(image);
    std::size_t index = 0;
    for (const auto& row : cases) {
        const auto& node = *disk.volume->root->children().at(index++);
        EXPECT_EQ(node.size, row.size) << node.name;
        EXPECT_EQ(node.recoverability, row.isWhole ? Recoverability::good : Recoverability::partial)
            << node.name;
    }
    EXPECT_EQ(disk.content("/D").size(), 10'000u * 1024);
}

TEST(NTFS, AnMFTThatClaimsExabytes)
{
    const std::uint64_t longest = (std::uint64_t { 1 } << 40) - 1;
    const std::uint64_t exabytes = std::uint64_t { 1 } << 62;
    const std::vector<Image::Data> claims {
        { .runs = { { 16, 64 }, { std::nullopt, longest }, { std::nullopt, longest }, { 16, 1 } },
            .size = exabytes },
        { .runs = { { 16, 64 }, { 16, longest } }, .size = exabytes },
        { .runs = RunList(100, { 16, 500 }), .size = exabytes },
        { .runs = { { 16, 64 } }, .size = exabytes },
    };
    for (const auto& claim : claims) {
        Image image;
        image.putFile(20, root, u"fil", bytesOf("x"));
        image.put(0, { .attributes = { Image::data(claim) } });
        const auto disk = parse(image);
        EXPECT_EQ(disk.content("/fil"), bytesOf("x"));
        EXPECT_LT(disk.source->bytesRead(), 3 * image.bytes().size());
    }
}
