#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

namespace {

const std::string lacksSome = "Delvis: Dele af filens placering mangler";

/// The list as an attribute in the record, or in clusters.
Bytes attributeList(Image& image, const std::vector<Image::ListEntry>& entries, bool isResident)
{
    const auto list = Image::listContent(entries);
    return isResident
        ? Image::attribute(0x20, list)
        : Image::nonResident(0x20, { .runs = image.store(list), .size = list.size() });
}

} // namespace

TEST(NTFSAttributeList, AddsTheExtensionsThatAreStillTheFiles)
{
    const auto content = patternBytes(6000);
    const auto firstHalf = joined({ firstOf(content, 2048), Bytes(3952) });
    const struct {
        const char* what;
        FileReference extension; // as the list has it
        bool inUse;
        std::uint16_t sequence; // of the file's record now
        FileReference base;     // as the extension has it
        std::uint16_t extensionSequence;
        bool isWhole;
    } cases[] = {
        { "named twice, added once", { 40, 3 }, true, 1, { 20, 1 }, 3, true },
        { "a slot that was used again", { 40, 3 }, true, 1, { 20, 1 }, 4, false },
        { "deleted, which counts both up", { 40, 3 }, false, 2, { 20, 1 }, 4, true },
        { "of another file", { 40, 3 }, true, 1, { 21, 1 }, 3, false },
        { "not there", { 41, 3 }, true, 1, { 20, 1 }, 3, false },
    };
    for (const auto& [what, extension, inUse, sequence, base, extensionSequence, isWhole] : cases) {
        for (const bool isResident : { true, false }) {
            SCOPED_TRACE(std::string(what) + (isResident ? ", resident" : ", not resident"));
            Image image;
            const auto first = image.store(firstOf(content, 2048), inUse);
            image.store(Bytes(1024));
            const auto second = image.store({ content.begin() + 2048, content.end() }, inUse);
            const auto list = attributeList(image,
                { { 0x10, { 20, 1 } }, { 0x80, { 20, 1 } }, { 0x80, extension, 2 },
                    { 0x80, extension, 2 } },
                isResident);
            image.put(20,
                { .inUse = inUse,
                    .sequence = sequence,
                    .attributes
                    = { Image::standardInformation(), list, Image::fileName(root, u"fil"),
                        Image::data({ .runs = first, .size = 6000 }) } });
            image.put(40,
                { .inUse = inUse,
                    .sequence = extensionSequence,
                    .base = base,
                    .attributes = { Image::data({ .runs = second, .startVCN = 2 }) } });
            const auto disk = parse(image);
            EXPECT_EQ(disk.names(), " /fil");
            EXPECT_EQ(chance(disk["/fil"]), isWhole ? "God" : lacksSome);
            EXPECT_EQ(disk.content("/fil"), isWhole ? content : firstHalf);
        }
    }
}

TEST(NTFSAttributeList, LeavesAGapWhereAFragmentIsMissing)
{
    Image image;
    const auto content = patternBytes(6000);
    const auto first = image.store(firstOf(content, 2048));
    const auto second = image.store({ content.begin() + 2048, content.end() });
    const auto list
        = Image::listContent({ { 0x30, { 44, 1 } }, { 0x80, { 45, 1 }, 4 }, { 0x80, { 24, 1 } } });
    image.put(24,
        { .attributes
            = { Image::attribute(0x20, list), Image::data({ .runs = first, .size = 8000 }) } });
    image.put(
        44, { .base = { 24, 1 }, .attributes = { Image::fileName(root, u"navn fra udvidelsen") } });
    image.put(45,
        { .base = { 24, 1 }, .attributes = { Image::data({ .runs = second, .startVCN = 4 }) } });
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /navn fra udvidelsen");
    EXPECT_EQ(chance(disk["/navn fra udvidelsen"]), lacksSome);
    EXPECT_EQ(disk.content("/navn fra udvidelsen"),
        joined({ firstOf(content, 2048), Bytes(2048),
            { content.begin() + 2048, content.begin() + 5952 } }));
}

TEST(NTFSAttributeList, IsNotNeededWhereTheExtensionsNameTheirFile)
{
    Image image;
    const auto content = patternBytes(2000);
    image.put(24,
        { .attributes = { Image::nonResident(0x20, { .runs = image.store(Bytes(512)), .size = 64 }),
              Image::fileName(root, u"fil") } });
    image.put(40,
        { .base = { 24, 1 },
            .attributes = { Image::data({ .runs = image.store(content), .size = 2000 }) } });
    image.put(41, { .base = { 24, 7 }, .attributes = { Image::fileName(root, u"en anden") } });
    const auto disk = parse(image);
    EXPECT_EQ(chance(disk["/fil"]), "God");
    EXPECT_EQ(disk.content("/fil"), content);
}
