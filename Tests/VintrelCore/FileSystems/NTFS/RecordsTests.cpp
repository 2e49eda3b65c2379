#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace NTFSTestVolume;

namespace {

std::optional<MFTRecord> parsed(Bytes bytes)
{
    MFTRecord record;
    return NTFSParser::parseRecord(bytes, {}, record) ? std::optional(record) : std::nullopt;
}

/// A record as it is stored.
Bytes stored(const Image::Record& record)
{
    Image image;
    image.put(20, record);
    const auto bytes = ByteView(image.bytes())
                           .sub(static_cast<std::int64_t>(image.recordOffset(20)), 1024)
                           .span();
    return { bytes.begin(), bytes.end() };
}

} // namespace

TEST(NTFSRecords, PreferEveryOtherNameToTheShortOne)
{
    const struct {
        std::vector<std::uint8_t> nameSpaces; // of names that are called after them
        std::string best;
    } cases[] = { { { 2, 1 }, "n1" }, { { 1, 2 }, "n1" }, { { 2, 0 }, "n0" }, { { 2, 3 }, "n3" },
        { { 0, 1 }, "n0" }, { { 2 }, "n2" } };
    for (const auto& [nameSpaces, best] : cases) {
        Image::Record record;
        for (const auto nameSpace : nameSpaces)
            record.attributes.push_back(Image::fileName(
                root, std::u16string { u'n', static_cast<char16_t>(u'0' + nameSpace) }, nameSpace));
        auto read = parsed(stored(record));
        ASSERT_TRUE(read && read->bestName() != nullptr);
        EXPECT_EQ(read->bestName()->name, best) << "the first of " << nameSpaces.size();
    }
    EXPECT_EQ(parsed(stored({}))->bestName(), nullptr);
}

TEST(NTFSRecords, AreReadWhereTheyAreDamaged)
{
    const auto sound = stored({ .attributes = { Image::fileName(root, u"fil") } });
    EXPECT_TRUE(NTFSParser::looksLikeRecord(sound));
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
        const auto record = parsed(bytes);
        EXPECT_EQ(record.has_value(), isRecord) << what;
        EXPECT_EQ(record && record->fixupOK, isSound) << what;
    }
}
