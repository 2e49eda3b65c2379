// Kinds of which no free tool makes a file, and what sets a file of a kind apart from what only
// looks like one.

#include "Tests/VintrelCore/Carving/Carve.h"
#include "VintrelCore/Foundation/CRC16.h"

#include <gtest/gtest.h>

using namespace std::string_view_literals;

namespace {

Content repeated(int count, const Bytes& bytes)
{
    Content all;
    for (int i = 0; i < count; ++i)
        all.add(bytes);
    return all;
}

Bytes ape()
{
    Content file;
    file.text("MAC ").le(3990, 2).zeros(2).le(52, 4).le(24, 4).le(4, 4).le(44, 4).le(500, 4);
    file.le(0, 4).le(6, 4).zeros(16).le(2000, 2).zeros(2).le(73'728, 4).le(9, 4).le(1, 4);
    file.le(16, 2).le(2, 2).le(44'100, 4).le(52 + 24 + 4 + 44, 4);
    return file.upTo(52 + 24 + 4 + 44 + 506, 7);
}

/// A tag of one item, as it stands behind sound.
Bytes apeTag()
{
    return Content().text("APETAGEX").le(2000, 4).le(40, 4).le(1, 4).upTo(32).upTo(72, 'a');
}

Bytes outlook(unsigned version, std::size_t trailer, std::uint8_t blockTreeType = 0x80)
{
    const bool isWide = version > 15;
    const int width = isWide ? 8 : 4;
    Content file;
    file.text("!BDN").zeros(4).text("SM").le(version, 2).upTo(isWide ? 180 : 164);
    file.zeros(4).le(16'384, width).zeros(static_cast<std::size_t>(width) * 3);
    file.le(1, width).le(4'096, width).le(2, width).le(8'192, width);
    file.upTo(4'096 + trailer).le(0x8181, 2);
    file.upTo(8'192 + trailer).le(blockTreeType, 1).le(0x80, 1);
    return file.upTo(16'384);
}

Bytes layered(int version, int compression)
{
    Content file;
    file.text("8BPS").be(static_cast<std::uint64_t>(version), 2).zeros(6).be(3, 2);
    file.be(10, 4).be(20, 4).be(8, 2).be(3, 2).zeros(8).zeros(version == 2 ? 8 : 4);
    file.be(static_cast<std::uint64_t>(compression), 2);
    for (int row = 0; compression == 1 && row < 30; ++row)
        file.be(5, version == 2 ? 4 : 2);
    return file.upTo(file.size() + (compression == 1 ? 150 : 600), 9);
}

Bytes triangles(std::uint32_t count)
{
    Content one;
    for (const auto number :
        { 0u, 0u, 0x3F80'0000u, 0u, 0u, 0u, 0x4000'0000u, 0u, 0u, 0u, 0x4000'0000u, 0u })
        one.le(number, 4);
    const Bytes triangle = one.zeros(2);
    return Content().text("solid").upTo(80, ' ').le(count, 4).add(
        repeated(static_cast<int>(count), triangle));
}

Bytes blend(char order)
{
    const auto block = [&](std::string_view code, std::size_t size) {
        Content content;
        content.text(code);
        order == 'v' ? content.le(size, 4) : content.be(size, 4);
        return content.zeros(16 + size);
    };
    return Content()
        .text("BLENDER-")
        .text({ &order, 1 })
        .text("279")
        .add(block("GLOB", 40))
        .add(block("DNA1", 300))
        .add(block("ENDB", 0));
}

/// As versions from 5 on write it.
Bytes wideBlend()
{
    Content file;
    file.text("BLENDER17-01v0500");
    for (const std::string_view code : { "GLOB", "DNA1", "ENDB" }) {
        const std::size_t size = code == "ENDB" ? 0 : 300;
        file.text(code).zeros(12).le(size, 8).zeros(8 + size);
    }
    return file;
}

Bytes digitalVideo()
{
    Content file;
    for (std::uint64_t sequence = 0; sequence < 10; ++sequence)
        file.be(0x1F07'0000 | sequence << 20, 4)
            .upTo(80 + sequence * 12'000)
            .be(0x3F07'0000 | sequence << 20, 4)
            .upTo((sequence + 1) * 12'000);
    return file;
}

Bytes minolta()
{
    Content file;
    file.zeros(1).text("MRM").be(100, 4).zeros(1).text("PRD").be(24, 4).text("27730001");
    file.be(20, 2).be(30, 2).be(16, 2).be(24, 2).be(12, 1).be(12, 1).upTo(108);
    return file.upTo(108 + 20 * 30 * 12 / 8, 3);
}

/// A key whose packets have lengths of the newer format.
Bytes openPGPKey(unsigned tag, std::size_t size, char algorithm = 1)
{
    Content file;
    const auto packet = [&](unsigned which, std::size_t length, std::string_view begin) {
        file.be(which, 1);
        length < 192 ? file.be(length, 1) : file.be(0xC000 + length - 192, 2);
        file.text(begin).upTo(file.size() + length - begin.size(), 'a');
    };
    packet(tag, size, std::string("\4year") + algorithm);
    packet(0xCD, 20, "Havn");
    packet(0xC2, 200, "\4");
    return file;
}

constexpr auto step
    = "ISO-10303-21;\nHEADER;\nENDSEC;\nDATA;\n#1=POINT('',0.);\nENDSEC;\nEND-ISO-10303-21;\n"sv;
constexpr auto letter = "From: a@b\r\nDate: x\r\nSubject: y\r\n\r\nOne.\r\nTwo.\r\n"sv;

} // namespace

TEST(FurtherKinds, AreFollowedToTheirEnd)
{
    Content wide;
    wide.text("#!AMR-WB\n").add(repeated(9, Content().be(0x1C, 1).zeros(36))).be(0x7C, 1);
    EXPECT_EQ(carve(Content().add(wide).be(0x1C, 1)), "amr " + std::to_string(wide.size()))
        << "a byte behind it that might begin a frame";
    const std::string block = "-----BEGIN RSA KEY-----\nAAAA\n-----END RSA KEY-----\n";
    const struct {
        const char* ext;
        Bytes file;
    } files[] = {
        { "ape", ape() },
        { "ape", Content().add(ape()).add(apeTag()) },
        { "ape", Content().add(ape()).text("TAG").zeros(125) },
        { "amr", wide },
        { "pst", outlook(23, 496) },
        { "pst", outlook(14, 500) },
        { "pst", outlook(36, 4'072) },
        { "pst", outlook(37, 496) },
        { "psd", layered(1, 0) },
        { "psd", layered(1, 1) },
        { "psb", layered(2, 1) },
        { "stl", triangles(12) },
        { "blend", blend('v') },
        { "blend", blend('V') },
        { "blend", wideBlend() },
        { "dv", Content().add(digitalVideo()).add(digitalVideo()) },
        { "mrw", minolta() },
        { "stp", bytesOf(std::string(step)) },
        { "vcf", bytesOf("begin:vcard\r\nFN:A\r\nend:vcard\r\n\r\nBegin:vCard\r\nEND:VCARD\r\n") },
        { "ics",
            bytesOf("\xEF\xBB\xBF"
                    "BEGIN:VCALENDAR\nEND:VCALENDAR\n") },
        { "pem", bytesOf("Bag Attributes\n    a: b\n" + block + "Bag Attributes\n\n" + block) },
        { "pem",
            bytesOf("---- BEGIN SSH2 PUBLIC KEY ----\nAAAA\n---- END SSH2 PUBLIC KEY ----\n") },
        { "pem", bytesOf("RSA Private-Key: (512 bit, 2 primes)\nmodulus:\n    00:b1\n" + block) },
        { "dxf", bytesOf(" 0\nSECTION\n\t2\nHEADER\n 0\nENDSEC\n\t0\nEOF\n") },
        { "gpg", openPGPKey(0xC6, 60) },
        { "gpg", openPGPKey(0xC5, 500) },
    };
    for (const auto& [ext, file] : files)
        EXPECT_EQ(carve(file), std::string(ext) + " " + std::to_string(file.size()));
}

TEST(FurtherKinds, AreRefusedWhereTheyDoNotHoldTogether)
{
    auto elsewhere = ape();
    putLE(elsewhere, 76, 500, 4);
    auto loud = triangles(12);
    putLE(loud, 84, 0x4180'0000, 4);
    auto whole = triangles(12);
    putLE(whole, 84 + 12, 700, 4);
    const auto damaged = [](std::string_view sample, std::size_t at) {
        auto bytes = readFile(VINTREL_SAMPLES "/" + std::string(sample));
        bytes[at < bytes.size() ? at : bytes.size() - 1] ^= 0x55;
        return bytes;
    };
    auto withoutTable = readFile(VINTREL_SAMPLES "/ole-word.doc");
    const auto table = (ByteView(withoutTable).u32le(76) + 1) * 512;
    std::fill_n(withoutTable.begin() + table + 8, 40, std::uint8_t { 0 });
    const std::pair<std::string, Bytes> files[] = {
        { "frames that begin elsewhere", elsewhere },
        { "a root that is no page", outlook(23, 496, 0x81) },
        { "a picture packed in a way that none is", layered(1, 2) },
        { "triangles with long normals", loud },
        { "corners that are whole numbers", whole },
        { "three triangles", triangles(3) },
        { "blocks without an end",
            Content().text("BLENDER-v279DATA").le(40, 4).upTo(72).text("dat1") },
        { "a drawing without an end", bytesOf(std::string(step.substr(0, 60))) },
        { "a letter from nobody", bytesOf("To: a\r\nDate: x\r\nSubject: y\r\n\r\nOne.\r\n") },
        { "a letter below 300 other fields",
            Content().add(repeated(300, bytesOf("X-A: b\n"))).text(letter) },
        { "the rest of a field's name", Content().text("lla-Status: 1\n").text(letter) },
        { "text that only begins like a letter", bytesOf("From: a\nDate: x\n\nOne.\n") },
        { "one damaged frame", damaged("flac-plain.flac", 9'999) },
        { "a wrong sum of packed bytes", damaged("gz-plain.gz", 82) },
        { "wrong packed bytes", damaged("gz-plain.gz", 50) },
        { "a wrong sum of all blocks", damaged("bz2-plain.bz2", 10) },
        { "a wrong sum of a block's header", damaged("xz-plain.xz", 13) },
        { "another kind of footer", damaged("xz-plain.xz", 9'999) },
        { "a member with a wrong sum", damaged("tar-plain.tar", 3) },
        { "a key with another end", damaged("pem-ssh.pem", 380) },
        { "a bad back pointer", damaged("flv-plain.flv", 12) },
        { "a disc of two sizes", damaged("iso-plain.iso", 32'768 + 84) },
        { "a page that is another one", damaged("db-hash.db", 4'096 + 8) },
        { "a track without an end", damaged("mid-plain.mid", 9'999) },
        { "a metafile of another length", damaged("emf-plain.emf", 48) },
        { "a drawing that ends early", damaged("wmf-plain.wmf", 28) },
        { "an icon without pictures", damaged("ico-plain.ico", 22) },
        { "a heap whose directory is another one's", damaged("crw-plain.crw", 9'999) },
        { "a heap with a picture that is none", damaged("crw-plain.crw", 26 + 900) },
        { "sections that begin elsewhere", damaged("x3f-plain.x3f", 40) },
        { "a clip without an end", damaged("r3d-plain.r3d", 2'260 - 52) },
        { "a table of sections with a wrong sum", damaged("dwg-1015.dwg", 30) },
        { "a drawing whose variables lie elsewhere", damaged("dwg-1015.dwg", 0x101) },
        { "a header of a drawing with a wrong sum", damaged("dwg-1032.dwg", 128 + 30) },
        { "one master page", damaged("indd-plain.indd", 4'096) },
        { "a key without the name of its owner", damaged("gpg-public.gpg", 53) },
        { "a message that is not encrypted", damaged("gpg-password.gpg", 15) },
        { "a message of a version that none has", damaged("gpg-password.gpg", 17) },
        { "code that begins like a message in parts",
            Content()
                .text("\xC1\xE1\3H\x21")
                .upTo(11)
                .be(1, 1)
                .upTo(38)
                .text("\xD2\x20\1")
                .upTo(300) },
        { "a key of an algorithm that none has", openPGPKey(0xC6, 60, '\x63') },
        { "a table of sectors that was overwritten", withoutTable },
        { "passwords with one field less", damaged("csv-browser.csv", 39) },
        { "something else in the footer's place", damaged("tga-plain.tga", 9'999) },
    };
    for (const auto& [what, file] : files)
        EXPECT_EQ(carve(file), "-") << what;
}

// Where the length of one file is known and another begins at the next sector.
TEST(FurtherKinds, EndWhereAnotherFileBegins)
{
    const auto sample
        = [](std::string_view name) { return readFile(VINTREL_SAMPLES "/" + std::string(name)); };
    const struct {
        std::string_view name;
        const char* ext;
    } files[]
        = { { "mpg-first.mpg", "mpg" }, { "vob-plain.vob", "vob" }, { "mts-camera.mts", "mts" } };
    for (const auto& [name, ext] : files) {
        const auto file = sample(name);
        ASSERT_EQ(file.size() % 512, 0u) << name;
        const auto size = "+" + std::to_string(file.size());
        EXPECT_EQ(sweep({ file, file }),
            (Texts {
                ext + ("@0" + size), ext + ("@" + std::to_string(file.size() / 512)) + size }));
    }
    auto packed = sample("gz-plain.gz");
    packed.insert(packed.begin() + 10, 512 - packed.size() % 512, 'n');
    packed[3] = 8; // a name
    packed.at(10 + 511 - sample("gz-plain.gz").size() % 512) = 0;
    EXPECT_EQ(sweep({ packed, packed }), (Texts { "gz@0+512", "gz@1+512" }));
    EXPECT_EQ(carve(Content().add(sample("gz-plain.gz")).add(packed)),
        "gz " + std::to_string(packed.size() + sample("gz-plain.gz").size()))
        << "members of one file";
}

TEST(FurtherKinds, EstimateALetterWithoutParts)
{
    const auto plain = bytesOf(std::string(letter));
    EXPECT_EQ(carve(Content().add(plain).zeros(500)), "eml ~" + std::to_string(plain.size()));
    const Bytes parts
        = Content()
              .text("From: a@b\nDate: x\nContent-Type: multipart/mixed;\n boundary=Z\n")
              .text("To: c\n\n--Z\n\nOne.\n--Z--\n");
    for (const auto* first : { "", "Envelope-to: b\n", "reply-to: a\n", "X-Spam: 0\n\tx\n" }) {
        const Bytes mail = Content().text(first).add(parts);
        EXPECT_EQ(carve(Content().add(mail).text("text of somebody else")),
            "eml " + std::to_string(mail.size()))
            << first;
    }
    for (const auto* line : { "From a@b Sun Jul 14 12:30:00 2019\n", "From \n" }) {
        for (const auto* below : { "\n", "____\nlist@b\n\n" }) {
            const Bytes mails = Content().text(line).add(parts).text(below).text(line).add(parts);
            EXPECT_EQ(carve(mails), "mbox " + std::to_string(mails.size())) << line << below;
        }
    }
    const Bytes mailbox = Content().text("From \n").add(parts);
    const auto size = "+" + std::to_string(mailbox.size());
    const Bytes withText = Content().add(mailbox).upTo(510, 'x').text("\n\n");
    EXPECT_EQ(sweep({ withText, mailbox }), (Texts { "mbox@0" + size, "mbox@1" + size }));
}

TEST(FurtherKinds, ProveDrawingsByTheSumsOfAllTheirParts)
{
    const auto isProved = [](const Bytes& file) {
        const auto source = makeSource(file);
        Carver carver(*source, carvedCategories());
        const auto found = carver.check(source->read(0, 64, ReadMode::fast), 0);
        EXPECT_TRUE(found && found->size == file.size());
        return found && found->isProved;
    };
    const struct {
        const char* sample;
        std::vector<std::size_t> damagedParts;
    } drawings[] = {
        // An object, the first handle of the map, the size of its last page.
        { "dwg-1015.dwg", { 0x380, 0xB4B, 0xBB3 } },
        // A page, a map, the copy of the header.
        { "dwg-1032.dwg", { 0x200, 0x1760, 0x1800 } },
    };
    for (const auto& [sample, damagedParts] : drawings) {
        const auto whole = readFile(VINTREL_SAMPLES "/" + std::string(sample));
        EXPECT_TRUE(isProved(whole)) << sample;
        for (const auto part : damagedParts) {
            auto damaged = whole;
            damaged[part] ^= 0x55;
            EXPECT_FALSE(isProved(damaged)) << sample << " at " << part;
        }
    }
}

// As AutoCAD itself writes them: other programs have no second header, and the preview in front.
TEST(FurtherKinds, EndDrawingsBehindTheSecondHeaderAndThePreview)
{
    const auto drawing = readFile(VINTREL_SAMPLES "/dwg-1015.dwg");
    const auto preview = ByteView(drawing).u32le(13);
    const auto previewSize = 16 + 4 + ByteView(drawing).u32le(preview + 16) + 16;
    const auto second = Content()
                            .be(0xD47B'21CE'2893'9FBF, 8)
                            .be(0x5324'4009'123C'AA01, 8)
                            .upTo(100, 7)
                            .be(0x2B84'DE31'D76C'6040, 8)
                            .be(0xACDB'BFF6'EDC3'55FE, 8);
    Content file;
    file.add(drawing).add(second);
    EXPECT_EQ(carve(file), "dwg " + std::to_string(file.size()));

    const auto first = drawing.begin() + preview;
    Bytes moved = file.add({ first, first + previewSize });
    putLE(moved, 13, drawing.size() + second.size(), 4);
    const auto tableEnd = 25 + 9 * ByteView(drawing).u32le(21);
    putLE(moved, tableEnd, crc16(0xC0C1, ByteView(moved).sub(0, tableEnd)), 2);
    EXPECT_EQ(carve(moved), "dwg " + std::to_string(moved.size()));
}

TEST(FurtherKinds, EstimateALayoutWhoseLastObjectIsDamaged)
{
    auto layout = readFile(VINTREL_SAMPLES "/indd-plain.indd");
    const auto object = 3 * 4'096;
    layout[object + 32 + ByteView(layout).u32le(object + 24)] ^= 1;
    EXPECT_EQ(carve(layout), "indd ~" + std::to_string(object));
}

// What is encrypted ends at zeros, or where another file begins.
TEST(FurtherKinds, EstimateADatabaseOfPasswordsThatIsEncryptedAsAWhole)
{
    Content database;
    database.le(0x9AA2'D903, 4).le(0xB54B'FB67, 4).le(0x0003'0001, 4);
    for (const int id : { 2, 4, 5, 7, 9, 0 })
        database.le(static_cast<std::uint64_t>(id), 1).le(16, 2).zeros(16);
    const auto fields = database.size();
    database.add(patternBytes(800 - 800 % 16));
    const auto size = std::to_string(database.size());
    EXPECT_EQ(carve(Content().add(database).zeros(500)), "kdbx ~" + size);
    const Bytes whole = Content().add(database).add(patternBytes(1'024 - database.size()));
    const auto png = pngFile();
    EXPECT_EQ(
        sweep({ whole, png }), (Texts { "kdbx@0~1024!", "png@2+" + std::to_string(png.size()) }));
    Bytes other = database;
    other[fields - 19] = 6; // no first bytes to know the password by
    EXPECT_EQ(carve(other), "-");
}

TEST(FurtherKinds, AreTextsOnlyWhereTheyAreAskedFor)
{
    const auto filled = [](std::string_view line, std::string_view first = "") {
        std::string text(first);
        while (text.size() < 5'000)
            text += line;
        return bytesOf(text);
    };
    const std::string_view sentence = "Solen stod stille over fjorden.\n";
    Content wide;
    wide.be(0xFFFE, 2);
    for (int i = 0; i < 2'600; ++i)
        wide.le(
            static_cast<std::uint64_t>(sentence[static_cast<std::size_t>(i) % sentence.size()]), 2);
    const struct {
        const char* found;
        Bytes file;
    } files[] = {
        { "txt", filled(sentence) },
        { "txt", filled("Bl\xC3\xA6sten kom f\xC3\xB8rst henad aften.\n") },
        { "txt", filled("Bl\xE6sten kom f\xF8rst henad aften.\n") },
        { "txt", filled("Над фьордом стояло солнце и никто не спешил.\n") },
        { "txt", wide },
        { "html", filled("<p>Ingen havde travlt.</p>\n", "<!DOCTYPE html>\n<html>\n") },
        { "xml", filled("<p>Ingen havde travlt.</p>\n", "<?xml version='1.0'?>\n<a>\n") },
        { "csv", filled("Havn;12,5;\"ja; nej\"\n", "Sted;Pris;Andet\n") },
        { "", filled("          \n") },
        { "", filled("\xC6\xD8\xC5\xE6\xF8\xE5\xC4\xD6\xDC\xE4\xF6\xFC\xE9 abcdef\n") },
        { "", patternBytes(8'000) },
        { "", Content().text("Ingen havde travlt den dag.\n").zeros(5'000) },
    };
    for (const auto& [ext, file] : files) {
        EXPECT_EQ(sweep({ file }), Texts {});
        const auto expected = ext + ("@0~" + std::to_string(file.size()));
        EXPECT_EQ(sweep({ file }, { .findVolumes = false, .findTexts = true }),
            *ext != 0 ? Texts { expected } : Texts {})
            << ext;
    }
}

TEST(FurtherKinds, ProveNoBodyThatIsOnlyStated)
{
    const auto png = pngFile();
    const Bytes psd = Content()
                          .text("8BPS\0\1"sv)
                          .zeros(6)
                          .be(1, 2)
                          .be(100, 4)
                          .be(100, 4)
                          .be(8, 2)
                          .zeros(2 + 14)
                          .upTo(512);
    const auto size = std::to_string(26 + 12 + 2 + 10'000);
    EXPECT_EQ(sweep({ psd, png, Bytes(12'000, 7) }),
        (Texts { "psd@0+" + size + "!", "png@1+" + std::to_string(png.size()) }));
}
