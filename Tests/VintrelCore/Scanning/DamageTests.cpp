// One sector of a volume's metadata is lost: only what lay in it may be missing.

#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/DeepScan.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>

namespace {

constexpr int fileCount = 72, folderCount = 3;
constexpr std::size_t sectorSize = 512;
constexpr std::size_t reach = 2'048;       // nothing of an entry lies farther from its name
constexpr std::uint8_t contentMark = 0xC7; // begins every sector of content, and nothing else

std::string nameOf(int number)
{
    char name[9];
    std::snprintf(name, sizeof name, "FIL%05d", number);
    return name;
}

std::u16string wide(const std::string& text) { return { text.begin(), text.end() }; }

Bytes contentOf(int number)
{
    Bytes content(2 * sectorSize, static_cast<std::uint8_t>(number));
    content[0] = content[sectorSize] = contentMark;
    return content;
}

/// A volume of files in folders, and how far the entry of a file reaches around its name.
struct Volume {
    const char* kind;
    Bytes bytes;
    bool hasWideNames;
    std::size_t before, behind; ///< bytes of the entry in front of its name, and from there on
    std::size_t unit;           ///< entries are lost in blocks of so many bytes
};

Volume fatVolume()
{
    FATImage image({ .type = FileSystemType::fat12 });
    std::vector<std::uint32_t> folders;
    for (int i = 0; i < folderCount; ++i)
        folders.push_back(
            image.addFolder(FATImage::root, { .name = "MAPPE" + std::to_string(i) + "     " }, 4));
    for (int i = 0; i < fileCount; ++i)
        image.addFile(folders[static_cast<std::size_t>(i % folderCount)],
            { .name = nameOf(i) + "   " }, contentOf(i));
    return { "FAT", image.bytes(), false, 0, 32, 1 };
}

Volume exfatVolume()
{
    ExFATImage image({ .clusters = 300 });
    std::vector<std::uint32_t> folders;
    for (int i = 0; i < folderCount; ++i)
        folders.push_back(
            image.addFolder(image.root(), { .name = u"Mappe " + wide(nameOf(i)) }, 8));
    for (int i = 0; i < fileCount; ++i)
        image.addFile(folders[static_cast<std::size_t>(i % folderCount)],
            { .name = wide(nameOf(i)) }, contentOf(i));
    return { "exFAT", image.bytes(), true, 66, 30, 1 };
}

Volume ntfsVolume()
{
    NTFSImage image({ .clusters = 800, .records = 128 });
    constexpr std::uint64_t firstFolder = 24, firstFile = 30; // their records
    for (std::uint64_t i = 0; i < folderCount; ++i)
        image.putFolder(firstFolder + i, NTFSImage::root, wide("Mappe " + std::to_string(i)));
    for (int i = 0; i < fileCount; ++i) {
        const auto number = static_cast<std::uint64_t>(i);
        const FileReference folder { firstFolder + number % folderCount, 1 };
        const auto content = contentOf(i);
        image.put(firstFile + number,
            { .attributes
                = { NTFSImage::standardInformation(), NTFSImage::fileName(folder, wide(nameOf(i))),
                    NTFSImage::data({ .runs = image.store(content), .size = content.size() }) } });
    }
    return { "NTFS", image.bytes(), true, 0, 16, 1'024 };
}

/// The files of which a part of the entry lies in a sector.
std::set<int> filesIn(const Volume& volume, std::size_t sector)
{
    std::set<int> files;
    const std::size_t start = sector * sectorSize;
    const std::size_t begin = start - std::min(start, reach);
    const std::size_t end = std::min(start + reach, volume.bytes.size());
    for (int number = 0; number < fileCount; ++number) {
        std::string name = nameOf(number);
        if (volume.hasWideNames)
            for (std::size_t at = 1; at <= name.size(); at += 2)
                name.insert(at, 1, '\0');
        const auto window = std::span(volume.bytes).subspan(begin, end - begin);
        for (auto at = window.begin();; ++at) {
            at = std::search(at, window.end(), name.begin(), name.end());
            if (at == window.end())
                break;
            const auto place = begin + static_cast<std::size_t>(at - window.begin());
            const std::size_t first = (place - volume.before) / volume.unit * volume.unit;
            const std::size_t last
                = (place + volume.behind + volume.unit - 1) / volume.unit * volume.unit;
            if (first < start + sectorSize && last > start)
                files.insert(number);
        }
    }
    return files;
}

std::vector<std::size_t> metadataSectors(const Volume& volume)
{
    std::vector<std::size_t> sectors;
    for (std::size_t at = 0; at + sectorSize <= volume.bytes.size(); at += sectorSize) {
        const auto sector = std::span(volume.bytes).subspan(at, sectorSize);
        if (sector[0] != contentMark && !ByteView(sector).isAllZero())
            sectors.push_back(at / sectorSize);
    }
    return sectors;
}

} // namespace

TEST(Damage, OfOneSectorCostsOnlyWhatLayInIt)
{
    constexpr std::size_t sectorsTried = 16;
    for (const auto& volume : { fatVolume(), exfatVolume(), ntfsVolume() }) {
        auto sectors = metadataSectors(volume);
        std::shuffle(sectors.begin(), sectors.end(), std::mt19937(7));
        sectors.resize(std::min(sectors.size(), sectorsTried));
        for (const auto sector : sectors) {
            auto damaged = volume.bytes;
            erase(damaged, sector * sectorSize, (sector + 1) * sectorSize);
            const Found found(damaged);
            const auto own = filesIn(volume, sector);
            for (int number = 0; number < fileCount; ++number)
                EXPECT_TRUE(own.contains(number)
                    || found.count("/" + nameOf(number), contentOf(number)) > 0)
                    << volume.kind << ", sector " << sector << ": " << nameOf(number);
        }
    }
}
