// Real files of every kind that has a checker, whole and with foreign bytes inside.

#include "Tests/Support/GrowingFile.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Foundation/MPEGFrame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

using namespace std::string_view_literals;

namespace {

using Content::Finding;
using Content::Proof;

struct Sample {
    std::string name;
    Bytes bytes;

    std::string extension() const { return name.substr(name.rfind('.') + 1); }
};

/// Those that something can follow.
const std::vector<Sample>& samples()
{
    static const auto all = [] {
        std::vector<Sample> files;
        for (const auto& entry : std::filesystem::directory_iterator(VINTREL_SAMPLES)) {
            if (!entry.is_regular_file())
                continue;
            Sample sample { entry.path().filename().string(), readFile(entry.path().string()) };
            if (Content::checkerFor(sample.extension()))
                files.push_back(std::move(sample));
        }
        std::ranges::sort(files, {}, &Sample::name);
        return files;
    }();
    return all;
}

/// What a checker says that was given the file in slices, and replaced by its copy after each.
Finding follow(const std::string& extension, const Bytes& bytes, std::size_t slice)
{
    GrowingFile file(bytes);
    auto checker = Content::checkerFor(extension);
    for (std::size_t read = 0; read < bytes.size(); read += slice) {
        file.grow(slice);
        const auto before = checker->finding();
        checker->advance(file);
        checker = checker->copy();
        const auto after = checker->finding();
        EXPECT_GE(after.firm, before.firm);
        EXPECT_LE(after.firm, after.checked);
    }
    file.end();
    checker->advance(file);
    return checker->finding();
}

std::string describe(const Finding& finding)
{
    constexpr std::array names { "none", "chain", "decoded", "checksum" };
    if (finding.brokenAt)
        return "broken at " + std::to_string(*finding.brokenAt) + ", firm to "
            + std::to_string(finding.firm);
    if (!finding.length)
        return "open at " + std::to_string(finding.checked);
    return std::string(names.at(static_cast<std::size_t>(finding.proof))) + " of "
        + std::to_string(*finding.length);
}

Bytes part(const Bytes& bytes, std::size_t from, std::size_t count)
{
    const auto view
        = ByteView(bytes).sub(static_cast<std::int64_t>(from), static_cast<std::int64_t>(count));
    return Bytes(view.span().begin(), view.span().end());
}

/// Foreign bytes: a stretch of each kind that disks are full of.
struct Stranger {
    Bytes bytes;
    bool isRelated = false; ///< of a file of the same kind, which may well fit at first
};

std::vector<Stranger> strangers(const Sample& sample)
{
    const auto length = sample.bytes.size();
    Bytes text = bytesOf("En dag i juli stod solen stille over fjorden, og ingen havde travlt. ");
    while (text.size() < length)
        text.insert(text.end(), text.begin(), text.end() - 1);
    text.resize(length);
    std::vector<Stranger> all { { Bytes(length) }, { std::move(text) }, { patternBytes(length) } };
    for (const auto& other : samples()) {
        if (other.extension() == sample.extension()
            && part(other.bytes, 0, 512) != part(sample.bytes, 0, 512)) {
            all.push_back({ part(other.bytes, 512, length), true });
            all.back().bytes.resize(length);
        }
    }
    return all;
}

/// What a checker says of this file, which has foreign bytes inside. It is never proved by more
/// than its lengths, and the first foreign byte does not lie behind the contradiction.
Finding expectUnproved(const Sample& sample, const Bytes& bytes, std::size_t cut)
{
    const auto finding = follow(sample.extension(), bytes, 4'096);
    const auto first = std::ranges::mismatch(bytes, sample.bytes).in2 - sample.bytes.begin();
    if (static_cast<std::uint64_t>(first) >= finding.length.value_or(sample.bytes.size()))
        return {}; // the foreign bytes lie behind the file, or are the same
    const auto what = sample.name + " cut at " + std::to_string(cut) + ": " + describe(finding);
    EXPECT_LE(finding.proof, Proof::chain) << what;
    if (finding.isBroken()) {
        EXPECT_GE(*finding.brokenAt, static_cast<std::uint64_t>(first)) << what;
    }
    return finding;
}

/// The same, and the foreign bytes do not begin before what the checker vouches for.
void expectFound(const Sample& sample, const Bytes& bytes, std::size_t cut)
{
    const auto finding = expectUnproved(sample, bytes, cut);
    const auto first = std::ranges::mismatch(bytes, sample.bytes).in2 - sample.bytes.begin();
    EXPECT_LE(finding.firm, static_cast<std::uint64_t>(first))
        << sample.name << " cut at " << cut << ": " << describe(finding);
}

} // namespace

TEST(Content, FollowsWholeFilesToTheirEnd)
{
    std::map<std::string, Proof> exceptions;
    for (const auto* extension : { "mp4", "mov", "m4a", "m4v", "3gp", "heic", "avif", "cr3" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "pdf" })
        exceptions[extension] = Proof::decoded;
    for (const auto* extension : { "avi", "wav", "webp" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "mp3" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "doc", "xls", "ppt", "msg" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "tif", "tiff", "dng", "nef", "cr2", "arw", "pef", "orf", "rw2" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "webm", "gif" })
        exceptions[extension] = Proof::chain;
    for (const auto* extension : { "sqlite", "sqlite3" })
        exceptions[extension] = Proof::chain;
    ASSERT_GT(samples().size(), 10u);
    for (const auto& sample : samples()) {
        const bool isProgressive = sample.name == "jpeg-progressive.jpg";
        exceptions["jpg"] = isProgressive ? Proof::chain : Proof::decoded;
        const auto exception = exceptions.find(sample.extension());
        Finding expected;
        expected.length = sample.bytes.size();
        expected.proof = exception == exceptions.end() ? Proof::checksum : exception->second;
        for (const std::size_t slice : { 512u, 4'096u, 65'536u })
            EXPECT_EQ(describe(follow(sample.extension(), sample.bytes, slice)), describe(expected))
                << sample.name << " in slices of " << slice;
        const auto cut = part(sample.bytes, 0, sample.bytes.size() - 8);
        EXPECT_FALSE(follow(sample.extension(), cut, 512).isComplete()) << sample.name;
        const auto longer = joined({ sample.bytes, Bytes(3'000) });
        EXPECT_EQ(describe(follow(sample.extension(), longer, 512)), describe(expected))
            << sample.name << " in front of zeros";
    }
}

TEST(Content, ProvesNoFileWithForeignBytes)
{
    for (const auto& sample : samples()) {
        const auto& own = sample.bytes;
        // Checksums leave out nothing that is longer than a few bytes.
        const bool isSummed = follow(sample.extension(), own, 4'096).proof == Proof::checksum;
        const std::size_t sector = isSummed ? 64 : 512;
        const auto end = own.size() - (isSummed ? 24 : 0); // the comment of an archive
        const auto step = std::max(sector, own.size() / 40 / sector * sector);
        for (std::size_t cut = sector; cut < end; cut += step) {
            for (const auto& [foreign, isRelated] : strangers(sample)) {
                const auto head = part(own, 0, cut);
                const auto gap = part(foreign, 0, sector);
                const auto tail = part(own, cut, own.size());
                const auto others = { joined({ head, foreign }), joined({ head, gap, tail }) };
                for (const auto& other : others) {
                    if (isRelated)
                        expectUnproved(sample, other, cut);
                    else
                        expectFound(sample, other, cut);
                }
                expectUnproved(sample, joined({ head, gap, part(tail, sector, own.size()) }), cut);
            }
        }
    }
}

// Lengths alone would let these pass.
TEST(Content, ComparesWhatAFileSaysTwice)
{
    const struct {
        const char* what;
        const char* file;
        std::string_view last; ///< the last place of this text is changed
        std::string_view into;
        const char* expected; ///< how the description begins
    } rows[] = {
        { "a directory that names another entry", "zip-plain.zip", "a.txt", "b.txt", "broken" },
        { "a table that leaves out an object", "pdf-plain.pdf", " 00000 n", " 00000 f", "chain" },
        { "a picture with more rows than its codes", "gif-still.gif", "\x10\0\x10\0"sv,
            "\x10\0\x11\0"sv, "broken" },
        { "an index that names another stream", "avi-mjpeg.avi", "00dc", "01dc", "broken" },
    };
    for (const auto& [what, file, last, into, expected] : rows) {
        const auto sample = std::ranges::find(samples(), file, &Sample::name);
        if (sample == samples().end())
            continue; // its checker needs zlib
        auto bytes = sample->bytes;
        const auto place = std::find_end(bytes.begin(), bytes.end(), last.begin(), last.end());
        ASSERT_NE(place, bytes.end()) << what;
        std::ranges::copy(into, place);
        const auto finding = follow(sample->extension(), bytes, 4'096);
        EXPECT_TRUE(describe(finding).starts_with(expected)) << what << ": " << describe(finding);
    }
}

// Found by fuzz-content.
TEST(Content, EndsNoFileBehindItsLastByte)
{
    const struct {
        const char* what;
        const char* extension;
        std::string_view bytes;
    } rows[] = {
        { "a form with no room for a chunk", "wav", "RIFF\5\0\0\0WAVE"sv },
    };
    for (const auto& [what, extension, bytes] : rows)
        EXPECT_FALSE(follow(extension, bytesOf(bytes), 4'096).isComplete()) << what;
    const auto film = readFile(VINTREL_SAMPLES "/avi-mjpeg.avi");
    const auto further = bytesOf("RIFF\2\0\0\0AVIX"sv);
    EXPECT_EQ(follow("avi", joined({ film, further }), 4'096).length, film.size())
        << "a further form with no room for its own head";
}

TEST(Content, MissesAFrameOfSoundByTheDataOfTheNext)
{
    const auto bytes = readFile(VINTREL_SAMPLES "/mp3-id3v23.mp3");
    const ByteView view(bytes);
    auto frame = static_cast<std::int64_t>(view.u8(9)) + 10 + (view.u8(8) << 7);
    const auto next = [&](std::int64_t place) {
        const auto found = MPEGFrame::from(view.u32be(place));
        return found ? place + std::int64_t { found->length } : place;
    };
    for (int count = 0; count < 6; ++count)
        frame = next(frame);
    const auto behind = next(frame);
    ASSERT_GT(behind, frame);
    const auto shorter = joined({ part(bytes, 0, static_cast<std::size_t>(frame)),
        part(bytes, static_cast<std::size_t>(behind), bytes.size()) });
    EXPECT_LT(follow("mp3", shorter, 4'096).brokenAt.value_or(UINT64_MAX),
        static_cast<std::uint64_t>(behind));
}
