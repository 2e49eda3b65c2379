// Writes an APFS container with many files, which no other tool on Linux does: folders of 200 files
// each, whose content is shared.
//
//   apfs-image <file> <files>

#include "Tests/Images/APFSImage.h"
#include "Tests/Support/TestSource.h"

#include <iterator>

namespace {

constexpr std::uint64_t firstID = 16;
constexpr std::uint64_t filesPerFolder = 200;
constexpr std::size_t recordsPerLeaf = 20;

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 1;
    const std::uint64_t files = std::stoul(argv[2]);
    // A leaf takes a block for every seven files, with its part of indices and maps.
    APFSImage image({ .blocks = std::min<std::uint64_t>(files / 5 + 400, 32'000) });
    const auto content = image.store(patternBytes(2 * APFSImage::blockSize));
    APFSImage::Leaf records;
    std::uint64_t id = firstID;
    std::uint64_t folder = 0;
    for (std::uint64_t number = 0; number < files; ++number, ++id) {
        const auto text = std::to_string(1'000'000 + number);
        if (number % filesPerFolder == 0) {
            folder = id++;
            std::ranges::copy(image.folder(folder, 2, "MAPPE" + text), std::back_inserter(records));
        }
        std::ranges::copy(image.file({ .id = id,
                                         .parent = folder,
                                         .name = "Billede nummer " + text + ".jpg",
                                         .size = 6500 },
                              content),
            std::back_inserter(records));
    }
    image.commit(APFSImage::split(std::move(records), recordsPerLeaf));
    writeFile(argv[1], image.bytes());
}
