// Real files of every kind, as the tools of Tests/Samples/make wrote them, on images without any
// file system.

#include "Tests/Images/CarvedFile.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Foundation/Compression/Compression.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

struct Sample {
    std::string name;
    Bytes bytes;

    std::string extension() const { return name.substr(name.rfind('.') + 1); }
};

/// Whether what tells the end or the kind of a sample is packed.
bool needsZlib(const std::filesystem::path& sample)
{
    return sample.extension() == ".gz" || sample.extension() == ".xcf"
        || sample.filename() == "numbers-xml.numbers";
}

const std::vector<Sample>& samples()
{
    static const auto all = [] {
        std::vector<Sample> files;
        for (const auto& entry : std::filesystem::directory_iterator(VINTREL_SAMPLES)) {
            const auto extension = entry.path().extension();
            // The recipe has none.
            if (!extension.empty() && (Compression::hasZlib() || !needsZlib(entry.path())))
                files.push_back(
                    { entry.path().filename().string(), readFile(entry.path().string()) });
        }
        std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
        return files;
    }();
    return all;
}

/// A find, and what is expected of one, in words that a failing test can print.
std::string describe(
    std::uint64_t offset, std::uint64_t size, const std::string& extension, bool isExact)
{
    return std::to_string(offset) + "+" + std::to_string(size) + " " + extension
        + (isExact ? "" : " (estimated)");
}

class Disk {
public:
    enum Filler { random, text, zeros };

    void place(const Sample& sample)
    {
        // How long a PDF is, only a linearised one says.
        expected_.push_back(describe(bytes_.size(), sample.bytes.size(), sample.extension(),
            sample.extension() != "pdf" || sample.name == "pdf-linearised.pdf"));
        append(sample.bytes);
    }
    void append(const Bytes& bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

    /// At least this many bytes, and up to the end of a sector.
    void fill(Filler filler, std::size_t atLeast)
    {
        static const auto sentence = bytesOf("En dag i juli {stod} solen stille over \\fjorden; "
                                             "<b>ingen</b> havde travlt (0 obj).\n");
        auto count = atLeast + (512 - (bytes_.size() + atLeast) % 512) % 512;
        if (filler == random) {
            append(patternBytes(count, static_cast<std::uint32_t>(bytes_.size())));
        } else {
            for (; count > 0; --count)
                bytes_.push_back(
                    filler == text ? sentence[count % sentence.size()] : std::uint8_t { 0 });
        }
    }

    const std::vector<std::string>& expected() const { return expected_; }
    std::vector<std::string> found() const
    {
        const auto source = makeSource(bytes_);
        std::vector<std::string> finds;
        for (const auto& file : DeepScanner(*source).run(nullptr).carved)
            finds.push_back(describe(file.offset, file.size, file.ext, file.exact));
        return finds;
    }

private:
    Bytes bytes_;
    std::vector<std::string> expected_;
};

constexpr std::array fillers { Disk::zeros, Disk::text, Disk::random };

} // namespace

// Each file stands behind and in front of each filler, which also takes the rest of the file's last
// sector.
TEST(CarverSamples, ComeBackByteForByteAndNothingElseDoes)
{
    ASSERT_GT(samples().size(), 70u);
    for (std::size_t turn = 0; turn < fillers.size(); ++turn) {
        Disk disk;
        auto next = turn;
        for (const auto& sample : samples()) {
            disk.fill(fillers[next++ % fillers.size()], 700);
            disk.place(sample);
        }
        disk.fill(fillers[turn], 5000);
        EXPECT_EQ(disk.found(), disk.expected()) << "turn " << turn;
    }
}

// Files that were overwritten but for their beginnings may give a find of their own, but take
// nothing from others, nor from another copy of themselves.
TEST(CarverSamples, AreNotHiddenByTheBeginningsOfOthers)
{
    const auto missingBehind = [](std::size_t tenths, auto neighbourOf) {
        Disk disk;
        for (std::size_t i = 0; i < samples().size(); ++i) {
            const auto& lost = samples()[i].bytes;
            // Without a checksum or a length, any brace of another file may close this one.
            if (samples()[i].extension() == "rtf")
                continue;
            disk.append(Bytes(lost.begin(),
                lost.begin() + static_cast<std::ptrdiff_t>(lost.size() * tenths / 10)));
            disk.fill(Disk::text, lost.size()); // a length that the beginning tells is believed
            disk.place(samples()[neighbourOf(i) % samples().size()]);
            disk.fill(Disk::zeros, 0);
        }
        const auto found = disk.found();
        std::vector<std::string> missing;
        for (const auto& file : disk.expected())
            if (std::find(found.begin(), found.end(), file) == found.end())
                missing.push_back(file);
        return missing;
    };
    const std::vector<std::string> none;
    for (std::size_t shift = 1; shift < samples().size(); shift += 15)
        EXPECT_EQ(missingBehind(2 + shift % 4 * 2, [&](auto i) { return i * 29 + shift; }), none)
            << "shift " << shift;
    for (const std::size_t tenths : { 2U, 4U, 6U, 8U })
        EXPECT_EQ(missingBehind(tenths, [](auto i) { return i; }), none) << tenths << " tenths";
}

// Neither the bytes between two files nor the end of the disk are needed to tell one from the
// other.
TEST(CarverSamples, MayTouchEachOther)
{
    Disk disk;
    for (const auto& sample : samples()) {
        disk.place(sample);
        disk.fill(Disk::zeros, 0);
    }
    EXPECT_EQ(disk.found(), disk.expected());
}

// Damaged files by the thousand: none may crash its reader, or make it read without end. The seeds
// are fixed.
TEST(CarverSamples, DamagedFilesStayWithinBounds)
{
    std::vector<Bytes> files {
        tiffFile("IIRO", { { 0x10F, 2, 8, 60 }, { 0x111, 4, 1, 200 }, { 0x117, 4, 1, 900 } }),
        Content().text("FUJIFILMCCD-RAW ").upTo(84).be(148, 4).be(900, 4).upTo(200),
        Content()
            .text("Rar!\x1A\x07")
            .zeros(3)
            .be(0x73, 1)
            .zeros(2)
            .le(13, 2)
            .upTo(22)
            .be(0x7B, 1)
            .zeros(2)
            .le(7, 2),
        Content().text("Rar!\x1A\x07\x01").zeros(5).be(0x030100, 3).zeros(5).be(0x030500, 3)
    };
    for (const auto& sample : samples())
        files.push_back(sample.bytes);
    std::mt19937 random(1959);
    for (int round = 0; round < 40; ++round) {
        for (std::size_t i = 0; i < files.size(); ++i) {
            SCOPED_TRACE("file " + std::to_string(i) + ", round " + std::to_string(round));
            auto bytes = files[i];
            for (auto count = 1 + random() % 6; count > 0; --count) {
                constexpr std::uint8_t telling[] = { 0x00, 0x01, 0x7F, 0x80, 0xFF };
                const auto at = random()
                    % std::min<std::size_t>(bytes.size(), random() % 2 == 0 ? 96 : bytes.size());
                bytes[at] = random() % 2 == 0 ? telling[random() % std::size(telling)]
                                              : static_cast<std::uint8_t>(random());
            }
            bytes.resize(random() % 8 == 0 ? random() % bytes.size() : bytes.size());
            const auto source = makeSource(bytes);
            const auto found = DeepScanner(*source).run(nullptr);
            ASSERT_LE(found.carved.size(), bytes.size() / 512 + 1);
            ASSERT_LT(source->bytesRead(), 64 * bytes.size() + 1_MiB);
        }
    }
}
