#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

namespace {

Bytes stream(std::u16string_view name, const Image::Data& data)
{
    return Image::withName(Image::data(data), name);
}

/// Name, size and chance of each stream of a node.
std::string streamsOf(const FileNode& node)
{
    std::string text;
    for (const auto& stream : node.attachments ? *node.attachments : Attachments())
        text += stream.name + " " + std::to_string(stream.size) + " "
            + std::string(label(stream.recoverability)) + ";";
    return text;
}

} // namespace

TEST(NTFSStreams, AreAttachedWhenTheyAreMoreThanAMark)
{
    Image image;
    Bytes content = bytesOf("skjult");
    content.resize(3000);
    const auto runs = image.store(content);
    const auto own = Image::data(bytesOf("synligt"));
    image.put(20,
        named(u"fil",
            { own, stream(u"foto.jpg", { .runs = runs, .size = 3000 }),
                stream(u"mærke", { .runs = runs, .size = 1024 }) }));
    image.put(21,
        named(u"to",
            { own, stream(u"b", { .runs = runs, .size = 1025 }),
                stream(u"a", { .runs = runs, .size = 2000 }) }));
    image.put(22,
        named(u"slettet",
            { own, stream(u"brugt", { .runs = runs, .size = 3000 }),
                stream(u"fri", { .runs = image.store(content, false), .size = 3000 }) },
            false));
    // The second half of a stream lies in an extension record.
    image.put(30,
        { .base = { 23, 1 },
            .attributes = { stream(u"lang", { .runs = { { runs[0].lcn, 1 } }, .startVCN = 1 }) } });
    image.put(23,
        named(u"udvidet",
            { Image::attribute(
                  0x20, Image::listContent({ { 0x80, { 23, 1 } }, { 0x80, { 30, 1 } } })),
                own, stream(u"lang", { .runs = { { runs[0].lcn, 1 } }, .size = 2048 }) }));
    const auto disk = parse(image);
    const struct {
        const char* path;
        std::string_view streams, fate;
    } cases[] = {
        { "/fil", "foto.jpg 3000 God;",
            "Eksisterende, God: Har en navngiven datastrøm (--streams): foto.jpg" },
        { "/to", "a 2000 God;b 1025 God;",
            "Eksisterende, God: Har navngivne datastrømme (--streams): a, b" },
        { "/slettet", "brugt 3000 Ringe;fri 3000 God;",
            "Slettet, God: Har navngivne datastrømme (--streams): brugt, fri" },
        { "/udvidet", "lang 2048 God;",
            "Eksisterende, God: Har en navngiven datastrøm (--streams): lang" },
    };
    for (const auto& [path, streams, expected] : cases) {
        EXPECT_EQ(streamsOf(disk[path]), streams) << path;
        EXPECT_EQ(fate(disk[path]), expected) << path;
        EXPECT_EQ(disk.content(path), bytesOf("synligt")) << path;
    }
    EXPECT_EQ(attachments(disk, "/fil").substr(0, 15), "foto.jpg=skjult");
}
