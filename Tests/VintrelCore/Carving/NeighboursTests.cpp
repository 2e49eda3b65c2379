// Beginnings whose bodies are lost, and what lies there now; and files that only look like that.

#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

using namespace std::string_view_literals;

namespace {

Content chunk(std::string_view id, const Bytes& body)
{
    return Content().text(id).le(body.size(), 4).add(body).upTo((8 + body.size() + 1) / 2 * 2);
}

Bytes film(const Bytes& pictures)
{
    const auto form
        = [](std::string_view type, const Bytes& body) { return Content().text(type).add(body); };
    return chunk("RIFF", form("AVI ", chunk("LIST", form("movi", pictures))));
}

/// A beginning of `length` bytes that claims to be whole, and photographs at the next two sectors.
std::vector<Bytes> reused(const Bytes& head) { return { head, jpegFile(), jpegFile() }; }

} // namespace

TEST(Carver, LetsNoDeadBeginningHideWhatLiesThereNow)
{
    const Bytes zip = zipFile({ { "a", std::string(900, 'a'), true } });
    const Bytes zipHead(zip.begin(), zip.begin() + 100);
    const Bytes otherZip = zipFile({ { "longer", std::string(5'000, 'b') } });
    const Bytes otherTail(otherZip.begin() + 4'900, otherZip.end());
    const auto wave = [](std::uint64_t form, std::uint64_t data) {
        return Content()
            .text("RIFF")
            .le(form, 4)
            .text("WAVE")
            .add(chunk("fmt ", Bytes(16)))
            .text("data")
            .le(data, 4)
            .upTo(100, 7);
    };
    const Bytes pdf = bytesOf("%PDF-1.4\n1 0 obj\n");
    const Bytes otherPDF = bytesOf("7 0 obj\nstartxref\n500\n%%EOF\n");
    const Bytes longerPDF = bytesOf("startxref\n99999\n%%EOF\n");
    const Content filmHead = Content()
                                 .text("RIFF")
                                 .le(5'000, 4)
                                 .text("AVI LIST")
                                 .le(4'900, 4)
                                 .text("movi00dc")
                                 .le(3'000, 4);
    const struct {
        const char* what;
        std::vector<Bytes> disk;
        std::string head; ///< how the beginning itself is listed; empty when it is not
    } cases[] = {
        { "an archive, and the end of another one", { zipHead, jpegFile(), jpegFile(), otherTail },
            "" },
        { "a film", reused(filmHead), "avi@0+5008!" },
        { "sound", reused(wave(900, 800)), "wav@0+908!" },
        { "sound without a length", reused(wave(0xFFFF'FFFF, 0xFFFF'FFFF)), "wav@0~512!" },
        { "sound without any", reused(wave(0, 0)), "wav@0~512!" },
        { "sound of another recorder", reused(wave(0x7FFF'FFFF, 0x7FFF'F000)), "wav@0~512!" },
        { "a document, and the end of another one", { pdf, jpegFile(), jpegFile(), otherPDF },
            "pdf@0~512!" },
        { "a document, and the end of a longer one", { pdf, jpegFile(), jpegFile(), longerPDF },
            "pdf@0~512!" },
    };
    const auto photograph = "+" + std::to_string(jpegFile().size());
    for (const auto& [what, disk, head] : cases) {
        Texts expected { "jpg@1" + photograph, "jpg@2" + photograph };
        if (!head.empty())
            expected.insert(expected.begin(), head);
        EXPECT_EQ(sweep(disk), expected) << what;
    }
}

TEST(Carver, PassesOverWhatAWholeFileHoldsInside)
{
    const Content picture = Content().upTo(488 - 8).add(jpegFile()).upTo(1'000);
    const Bytes avi = film(chunk("00dc", picture));
    EXPECT_EQ(ByteView(avi).sub(512, 2).u16be(0), 0xFFD8);
    EXPECT_EQ(sweep({ avi }), Texts { "avi@0+" + std::to_string(avi.size()) });
    auto second = film(chunk("00dc", Bytes(700)));
    std::ranges::copy("AVIX"sv, second.begin() + 8);
    EXPECT_EQ(sweep({ Content().add(avi).add(second) }),
        Texts { "avi@0+" + std::to_string(avi.size() + second.size()) })
        << "a film of two forms";
}

TEST(Carver, FindsFilesWithoutTheUsualBeginning)
{
    Content frames;
    for (int i = 0; i < 60; ++i) // two files joined: 44.1 and 48 kHz
        frames.be(i < 30 ? 0xFFFB'9000 : 0xFFFB'9400, 4).zeros(i < 30 ? 413 : 380);
    EXPECT_EQ(carve(frames), "mp3 " + std::to_string(frames.size()));
    EXPECT_EQ(carve(Bytes(frames.operator const Bytes&().begin(),
                  frames.operator const Bytes&().begin() + 8'000)),
        "-")
        << "as between pictures";

    const Bytes table = isoBox("stbl", isoBox("stco", Content().zeros(4).be(1, 4).be(200, 4)));
    const Bytes movie = isoBox("moov", isoBox("trak", isoBox("mdia", isoBox("minf", table))));
    const Bytes quickTime
        = Content().add(isoBox("wide")).add(isoBox("mdat", Bytes(300))).add(movie);
    EXPECT_EQ(carve(quickTime), "mov " + std::to_string(quickTime.size()));
    auto elsewhere = quickTime;
    putBE(elsewhere, elsewhere.size() - 4, 2'000, 4);
    EXPECT_EQ(carve(elsewhere), "-") << "whose samples lie elsewhere";

    const auto bigTIFF = [](std::uint64_t place) {
        Content file;
        file.text("II").le(43, 2).le(8, 2).zeros(2).le(1'016, 8).upTo(1'016, 7).le(2, 8);
        file.le(0x0111, 2).le(16, 2).le(1, 8).le(place, 8);
        return file.le(0x0117, 2).le(4, 2).le(1, 8).le(1'000, 8).zeros(8);
    };
    EXPECT_EQ(carve(bigTIFF(16)), "tif " + std::to_string(bigTIFF(16).size()));
    EXPECT_EQ(carve(bigTIFF(16'000'000)), "-");

    const Bytes sound = Content()
                            .add(chunk("fmt ", Bytes(16)))
                            .text("data")
                            .le(0xFFFF'FFFF, 4)
                            .zeros(50)
                            .add(chunk("LIST", Bytes(4)));
    const Bytes wide = Content()
                           .text("RF64")
                           .le(0xFFFF'FFFF, 4)
                           .text("WAVEds64")
                           .le(28, 4)
                           .le(sound.size() + 40, 8)
                           .le(50, 8)
                           .zeros(12)
                           .add(sound);
    EXPECT_EQ(carve(wide), "wav " + std::to_string(wide.size()));
}

TEST(Carver, CutsWhatGoesBeyondTheSource)
{
    const auto source = Content()
                            .text("BM")
                            .le(5'000, 4)
                            .zeros(4)
                            .le(54, 4)
                            .le(40, 4)
                            .le(9, 4)
                            .upTo(3'000)
                            .source();
    const auto found
        = Carver(*source, carvedCategories()).check(source->read(0, 64, ReadMode::fast), 0);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->size, 3'000u);
    EXPECT_TRUE(found->isCut && !found->exact && !found->isProved);
}
