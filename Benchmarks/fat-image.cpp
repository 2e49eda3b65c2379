// Writes FAT32 volumes that other tools would take very long for.
//
//   fat-image <file> files <count>     folders of 200 files of one cluster each
//   fat-image <file> deleted <count>   deleted files whose clusters overlap, beside others
//   fat-image <file> deep <count>      folders inside each other, with a file in each

#include "Tests/Images/FATImage.h"
#include "Tests/Support/TestSource.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace {

constexpr std::uint32_t filesPerFolder = 200;
constexpr std::uint32_t entriesPerFile = 4; // three pieces of the long name, and the short one
constexpr std::uint32_t entriesPerCluster = 16;
constexpr std::uint32_t deletedSize = 10 * 512; // ten clusters, and each begins three further on

/// The eleven bytes of a short name that ends in a number.
std::string shortName(char first, std::uint32_t number, std::string_view extension)
{
    std::array<char, 16> text {};
    std::snprintf(text.data(), text.size(), "%c%07u%.3s", first, number % 10'000'000,
        std::string(extension).c_str());
    return text.data();
}

std::u16string longName(std::uint32_t number)
{
    const auto text = "Billede nummer " + std::to_string(10'000'000 + number) + ".jpg";
    return { text.begin(), text.end() };
}

std::uint32_t clustersFor(std::uint32_t entries) { return entries / entriesPerCluster + 2; }

FATImage volume(std::uint32_t clusters)
{
    return FATImage({ .type = FileSystemType::fat32, .clusters = clusters + 70'000 });
}

/// A folder that has room for so many others; the root has little.
std::uint32_t addTop(FATImage& image, std::uint32_t entries)
{
    return image.addFolder(FATImage::root, { .name = "DCIM       " }, clustersFor(entries));
}

FATImage withFiles(std::uint32_t count)
{
    const auto folders = count / filesPerFolder + 1;
    const auto room = clustersFor(filesPerFolder * entriesPerFile + 2);
    auto image = volume(count + folders * (room + 1));
    const auto top = addTop(image, folders + 2);
    const auto content = patternBytes(500);
    std::uint32_t folder = top;
    for (std::uint32_t number = 0; number < count; ++number) {
        if (number % filesPerFolder == 0)
            folder = image.addFolder(
                top, { .name = shortName('M', number / filesPerFolder, "   ") }, room);
        image.addFile(folder,
            { .name = shortName('B', number, "JPG"), .longName = longName(number) }, content);
    }
    return image;
}

FATImage withDeleted(std::uint32_t count)
{
    const auto folders = count / filesPerFolder + 1;
    const auto room = clustersFor(filesPerFolder + 2);
    auto image = volume(3 * count + folders * (room + 1));
    const auto top = addTop(image, folders + 2);
    const std::uint32_t firstFree = 70'000 + folders * room;
    std::uint32_t folder = top;
    for (std::uint32_t number = 0; number < count; ++number) {
        if (number % filesPerFolder == 0)
            folder = image.addFolder(
                top, { .name = shortName('M', number / filesPerFolder, "   ") }, room);
        image.addEntry(folder,
            { .name = shortName('\xE5', number, "JPG"),
                .cluster = firstFree + 3 * number,
                .size = deletedSize });
    }
    return image;
}

FATImage withDepth(std::uint32_t count)
{
    auto image = volume(2 * count);
    const auto content = patternBytes(500);
    auto folder = FATImage::root;
    for (std::uint32_t depth = 0; depth < count; ++depth) {
        folder = image.addFolder(folder, { .name = "MAPPE      " });
        image.addFile(folder, { .name = "BILLEDE JPG" }, content);
    }
    return image;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 1;
    const std::string_view kind = argv[2];
    const auto count = static_cast<std::uint32_t>(std::stoul(argv[3]));
    const auto image = kind == "files" ? withFiles(count)
        : kind == "deleted"            ? withDeleted(count)
                                       : withDepth(count);
    writeFile(argv[1], image.bytes());
}
