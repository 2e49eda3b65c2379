// Makes inputs for the fuzz targets, in FOLDER:
//   fuzz-seeds disks FOLDER FILE…     recipes of disk images, and of those that targets build
//   fuzz-seeds content FOLDER FILE…   files for the checkers of content
//   fuzz-seeds packed FOLDER          what unpacks

#include "Tests/Fuzz/Support/ContentKinds.h"
#include "Tests/Fuzz/Support/Recipe.h"
#include "Tests/Images/PackedContent.h"
#include "Tests/Images/WindowsPacking.h"
#include "Tests/Support/TestSource.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iostream>

namespace {

using Paths = std::vector<std::filesystem::path>;

void makeDisks(const std::filesystem::path& folder, const Paths& files)
{
    constexpr std::array<Bases::Number, 1> blank { Bases::blank };
    constexpr std::size_t longest = 512 << 10;
    for (std::uint8_t base = 1; base < Bases::countOfAll; ++base)
        for (std::uint8_t flags : { Recipe::renewsChecksums, Recipe::isRecovered })
            writeFile(folder / ("base-" + std::to_string(base) + "-" + std::to_string(flags)),
                Bytes { base, flags, 0, 0, 0, 0 });
    for (const auto& file : files) {
        const auto image = readFile(file);
        const auto bytes = Recipe::describing(image).encode(blank);
        if (image.size() <= Recipe::mostSectors * std::size_t { 512 } && bytes.size() <= longest)
            writeFile(folder / file.filename(), bytes);
    }
}

void makeContent(const std::filesystem::path& folder, const Paths& files)
{
    for (const auto& file : files) {
        const auto extension = file.extension().string().substr(1);
        const auto kind = std::ranges::find(contentKinds, extension) - contentKinds.begin();
        if (kind < std::ssize(contentKinds))
            writeFile(folder / file.filename(),
                joined({ { static_cast<std::uint8_t>(kind), 7 }, readFile(file) }));
    }
}

void makePacked(const std::filesystem::path& folder)
{
    constexpr std::size_t size = 5000;
    Bytes content = patternBytes(1000);
    while (content.size() < size)
        content.insert(content.end(), content.begin() + 700, content.begin() + 900);
    content.resize(size);
    const Bytes start { 0, size & 0xFF, size >> 8 };
    const auto put = [&](std::uint8_t method, const std::string& name, const Bytes& packed) {
        auto bytes = joined({ start, packed });
        bytes[0] = method;
        writeFile(folder / name, bytes);
    };
    const auto xpress = WindowsPacking::stream(content, 4096, WindowsPacking::xpress);
    const auto lzx = WindowsPacking::stream(content, 32'768, WindowsPacking::lzx);
    const auto asBytes = [](const std::string& text) { return bytesOf(text); };
    put(0, "lznt1", { 0x03, 0xB0, 0x02, 'a', 0xFC, 0x0F, 0x03, 0x30, 'a', 'b', 'c', 'd' });
    put(1, "xpress", WindowsPacking::xpress(content));
    put(2, "lzx", WindowsPacking::lzx(content));
    put(4, "wof-xpress", joined({ { 0 }, xpress }));
    put(4, "wof-lzx", joined({ { 1 }, lzx }));
    put(7, "wof-reparse", WindowsPacking::reparsePoint(0));
    for (std::uint32_t type = 1; type < 13; ++type) {
        const auto piece = PackedContent::marked(0x06, Bytes(100, 'a'));
        put(3, "decmpfs-" + std::to_string(type),
            asBytes(PackedContent::header(type, 100, joined({ { 0xFF }, Bytes(100, 'a') }))));
        put(3, "decmpfs-fork-" + std::to_string(type),
            joined({ asBytes(PackedContent::header(type, 100)),
                PackedContent::plainFork({ piece, piece }) }));
    }
}

} // namespace

int main(int count, char** words)
{
    const std::string_view kind = count < 3 ? "" : words[1];
    const Paths files(words + std::min(count, 3), words + count);
    if (kind == "disks")
        makeDisks(words[2], files);
    else if (kind == "content")
        makeContent(words[2], files);
    else if (kind == "packed")
        makePacked(words[2]);
    else
        std::cerr << "usage: fuzz-seeds disks|content|packed FOLDER [FILE…]\n";
    return kind.empty() ? 1 : 0;
}
