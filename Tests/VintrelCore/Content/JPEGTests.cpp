#include "Tests/Support/TestSource.h"
#include "VintrelCore/Content/Content.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using Content::Proof;

/// A file of which `count` bytes can be read.
class Prefix final : public Content::FileBytes {
public:
    Prefix(const Bytes& bytes, std::size_t count)
        : bytes_(ByteView(bytes).sub(0, static_cast<std::int64_t>(count)))
        , isWhole_(count == bytes.size())
    {
    }
    std::uint64_t size() const override { return bytes_.size(); }
    bool isWhole() const override { return isWhole_; }
    ByteView stretch(std::uint64_t position, std::size_t count) override
    {
        return bytes_.sub(
            static_cast<std::int64_t>(position), static_cast<std::int64_t>(std::min(count, 700UL)));
    }

private:
    ByteView bytes_;
    bool isWhole_;
};

Content::Finding follow(const Bytes& bytes, std::size_t slice)
{
    auto checker = Content::checkerFor("jpg");
    for (std::size_t count = slice;; count += slice) {
        Prefix file(bytes, std::min(count, bytes.size()));
        checker->advance(file);
        if (count >= bytes.size())
            return checker->finding();
        checker = checker->copy();
    }
}

Bytes sample(const std::string& name) { return readFile(VINTREL_SAMPLES "/" + name); }

} // namespace

TEST(JPEGContent, ProvesWhatItCanDecodeHoweverTheBytesArrive)
{
    const struct {
        std::string name;
        Proof proof;
    } rows[] = {
        { "jpeg-baseline.jpg", Proof::decoded },
        { "jpeg-exif.jpg", Proof::decoded },
        { "jpeg-restart.jpg", Proof::decoded },
        { "jpeg-large.jpg", Proof::decoded },
        { "jpeg-large-restart.jpg", Proof::decoded },
        { "jpeg-progressive.jpg", Proof::chain },
    };
    for (const auto& [name, proof] : rows)
        for (const std::size_t slice : { 1UL, 512UL, 1'000'000UL }) {
            const auto bytes = sample(name);
            const auto finding = follow(bytes, slice);
            EXPECT_EQ(finding.length, bytes.size()) << name << " " << slice;
            EXPECT_EQ(finding.proof, proof) << name << " " << slice;
            EXPECT_FALSE(finding.brokenAt) << name << " " << slice;
        }
}

TEST(JPEGContent, TellsBetweenWhichBytesAPieceOfItIsForeign)
{
    for (const std::string name : { "jpeg-large.jpg", "jpeg-large-restart.jpg" })
        for (const std::size_t tenth : { 1U, 3U, 5U, 8U })
            for (const auto& foreign : { patternBytes(2048), Bytes(2048), Bytes(2048, 'e') }) {
                auto bytes = sample(name);
                const auto cut = bytes.size() * tenth / 10;
                const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(cut);
                bytes.insert(at, foreign.begin(), foreign.end());
                const auto finding = follow(bytes, 512);
                ASSERT_TRUE(finding.brokenAt) << name << " " << tenth;
                EXPECT_LE(finding.firm, cut + 1) << name << " " << tenth;
                EXPECT_GE(*finding.brokenAt, cut) << name << " " << tenth;
            }
}

TEST(JPEGContent, HoldsWhatARestartMarkerVouchesForFirm)
{
    auto bytes = sample("jpeg-large-restart.jpg");
    bytes.resize(bytes.size() * 9 / 10);
    const auto finding = follow(bytes, 512);
    EXPECT_TRUE(finding.brokenAt);
    EXPECT_GT(finding.firm, bytes.size() / 2);
}

TEST(JPEGContent, MissesARestartThatWasLeftOut)
{
    auto bytes = sample("jpeg-large-restart.jpg");
    const auto restart = [&](std::uint8_t marker) {
        const Bytes mark { 0xFF, marker };
        return std::search(bytes.begin(), bytes.end(), mark.begin(), mark.end());
    };
    const auto cut = static_cast<std::uint64_t>(restart(0xD1) - bytes.begin());
    bytes.erase(restart(0xD1), restart(0xD2));
    const auto finding = follow(bytes, 512);
    ASSERT_TRUE(finding.brokenAt);
    EXPECT_LE(finding.firm, cut);
    EXPECT_LE(*finding.brokenAt, cut + 16);
}

TEST(JPEGContent, FollowsTheScansThatRefineAProgressivePicture)
{
    constexpr std::ptrdiff_t firstData = 610; // of the last scan
    constexpr std::size_t tries = 40;
    std::size_t broken = 0;
    for (std::uint32_t seed = 1; seed <= tries; ++seed) {
        auto bytes = sample("jpeg-progressive.jpg");
        auto foreign = patternBytes(bytes.size() - firstData - 2, seed);
        std::ranges::replace(foreign, std::uint8_t { 0xFF }, std::uint8_t { 0 });
        std::ranges::copy(foreign, bytes.begin() + firstData);
        broken += follow(bytes, 512).isBroken() ? 1 : 0;
    }
    EXPECT_GT(broken, tries * 9 / 10);
}
