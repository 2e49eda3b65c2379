// Writes an NTFS volume with many records, which no other tool does in reasonable time: folders of
// 200 files with a long and a short name each, half of them small enough for the record itself, a
// third of them deleted.
//
//   ntfs-image <file> <records> [deep]      deep: folders inside each other instead, with a file
//   each

#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/TestSource.h"

#include <string>
#include <string_view>

namespace {

constexpr std::uint32_t firstNumber = 64;

std::u16string numbered(std::u16string_view before, std::uint32_t number)
{
    const auto text = std::to_string(number);
    return std::u16string(before).append(text.begin(), text.end());
}

void fillFolders(NTFSImage& image, std::uint32_t records)
{
    const auto content = patternBytes(600);
    const auto runs = image.store(patternBytes(4 * 4096));
    FileReference folder = NTFSImage::root;
    for (std::uint32_t number = firstNumber; number < records; ++number) {
        if (number % 200 == firstNumber) {
            image.putFolder(number, NTFSImage::root, numbered(u"MAPPE", number));
            folder = { number, 1 };
            continue;
        }
        image.put(number,
            { .inUse = number % 3 != 0,
                .attributes = { NTFSImage::standardInformation(),
                    NTFSImage::fileName(folder, u"BILLED~1.JPG", 2),
                    NTFSImage::fileName(folder, numbered(u"Billede nummer ", number) + u".jpg"),
                    number % 2 == 0 ? NTFSImage::data(
                        Bytes(content.begin(), content.begin() + 100 + number % 500))
                                    : NTFSImage::data({ .runs = runs, .size = 16'000 }) } });
    }
}

void fillDepth(NTFSImage& image, std::uint32_t records)
{
    const auto content = patternBytes(100);
    FileReference folder = NTFSImage::root;
    for (std::uint32_t number = firstNumber; number + 1 < records; number += 2) {
        image.putFolder(number, folder, numbered(u"MAPPE", number));
        folder = { number, 1 };
        image.putFile(number + 1, folder, u"Billede.jpg", content);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 1;
    const auto records = static_cast<std::uint32_t>(std::stoul(argv[2]));
    NTFSImage image({ .clusterSize = 4096, .clusters = records / 4 + 2000, .records = records });
    if (argc > 3)
        fillDepth(image, records);
    else
        fillFolders(image, records);
    writeFile(argv[1], image.bytes());
}
