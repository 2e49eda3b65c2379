// Writes an NTFS volume with many records, which no other tool does in reasonable time: folders of
// 200 files with a long and a short name each, half of them small enough for the record itself, a
// third of them deleted.
//
//   ntfs-image <file> <records>

#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/TestSource.h"

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 1;
    const auto records = static_cast<std::uint32_t>(std::stoul(argv[2]));
    NTFSImage image({ .clusterSize = 4096, .clusters = records / 4 + 2000, .records = records });
    const auto content = patternBytes(600);
    const auto runs = image.store(patternBytes(4 * 4096));
    FileReference folder = NTFSImage::root;
    for (std::uint32_t number = 64; number < records; ++number) {
        const auto text = std::to_string(number);
        const std::u16string name(text.begin(), text.end());
        if (number % 200 == 64) {
            image.putFolder(number, NTFSImage::root, u"MAPPE" + name);
            folder = { number, 1 };
            continue;
        }
        image.put(number,
            { .inUse = number % 3 != 0,
                .attributes = { NTFSImage::standardInformation(),
                    NTFSImage::fileName(folder, u"BILLED~1.JPG", 2),
                    NTFSImage::fileName(folder, u"Billede nummer " + name + u".jpg"),
                    number % 2 == 0 ? NTFSImage::data(
                        Bytes(content.begin(), content.begin() + 100 + number % 500))
                                    : NTFSImage::data({ .runs = runs, .size = 16'000 }) } });
    }
    writeFile(argv[1], image.bytes());
}
