// Writes an HFS+ volume with a catalog of any size, which no other tool on Linux does: folders of
// 200 files each, a tree of nodes of 8 KiB, and files that share their content. It is written from
// front to back, so that nothing but the index is kept in memory.
//
//   hfsplus-image <file> <files>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t blockSize = 4096;
constexpr std::uint32_t nodeSize = 8192;
constexpr std::uint32_t filesPerFolder = 200;
constexpr std::uint32_t rootFolder = 2, firstID = 16;
constexpr std::uint8_t leafKind = 0xFF, indexKind = 0, headerKind = 1, mapKind = 2;
constexpr std::size_t descriptorSize = 14;

void append(Bytes& bytes, std::uint64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i)
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

void put(Bytes& bytes, std::size_t at, std::uint64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i)
        bytes.at(at++) = static_cast<std::uint8_t>(value >> 8 * i);
}

void appendName(Bytes& bytes, const std::string& name)
{
    append(bytes, name.size(), 2);
    for (const char letter : name)
        append(bytes, static_cast<unsigned char>(letter), 2);
}

Bytes keyOf(std::uint32_t parent, const std::string& name)
{
    Bytes key;
    append(key, 6 + 2 * name.size(), 2);
    append(key, parent, 4);
    appendName(key, name);
    return key;
}

void putFork(Bytes& bytes, std::size_t at, std::uint64_t size, std::uint32_t start)
{
    const std::uint64_t blocks = (size + blockSize - 1) / blockSize;
    put(bytes, at, size, 8);
    put(bytes, at + 12, blocks, 4);
    put(bytes, at + 16, blocks > 0 ? start : 0, 4);
    put(bytes, at + 20, blocks, 4);
}

/// Writes the nodes of the catalog one behind the other, and the levels of its index at the end.
class CatalogWriter {
public:
    CatalogWriter(std::ofstream& file, std::uint64_t offset)
        : file_(file)
        , offset_(offset)
    {
        begin();
    }

    void add(const Bytes& key, const Bytes& data)
    {
        if (descriptorSize + records_.size() + key.size() + data.size() + 2 * (ends_.size() + 2)
            > nodeSize)
            finishNode(true);
        if (ends_.empty())
            firstKey_ = key;
        records_.insert(records_.end(), key.begin(), key.end());
        records_.insert(records_.end(), data.begin(), data.end());
        ends_.push_back(descriptorSize + records_.size());
        ++added_;
    }

    /// Writes what is left, the index, the header node and the nodes of its map. Returns the number
    /// of nodes.
    std::uint32_t finish()
    {
        finishNode(false);
        const auto leafRecords = added_;
        const auto lastLeaf = next_ - 1;
        while (level_.size() > 1) {
            const auto below = std::move(level_);
            level_.clear();
            kind_ = indexKind;
            ++height_;
            begin();
            for (const auto& [key, node] : below) {
                Bytes child;
                append(child, node, 4);
                add(key, child);
            }
            finishNode(false);
        }
        const auto root = level_.front().node;
        writeHeader(root, leafRecords, lastLeaf);
        return next_;
    }

private:
    struct Child {
        Bytes key;
        std::uint32_t node;
    };

    void begin()
    {
        records_.clear();
        ends_.clear();
        previous_ = 0;
    }

    Bytes node(std::uint32_t nextNode, std::uint32_t previous, std::uint8_t kind, int height,
        const std::vector<std::size_t>& ends) const
    {
        Bytes bytes(nodeSize);
        put(bytes, 0, nextNode, 4);
        put(bytes, 4, previous, 4);
        put(bytes, 8, kind, 1);
        put(bytes, 9, static_cast<std::uint64_t>(height), 1);
        put(bytes, 10, ends.size(), 2);
        std::size_t slot = nodeSize - 2;
        put(bytes, slot, descriptorSize, 2);
        for (const auto end : ends)
            put(bytes, slot -= 2, end, 2);
        return bytes;
    }

    void write(std::uint32_t number, const Bytes& bytes)
    {
        file_.seekp(static_cast<std::streamoff>(offset_ + std::uint64_t { number } * nodeSize));
        file_.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
    }

    void finishNode(bool isFollowed)
    {
        auto bytes = node(isFollowed ? next_ + 1 : 0, previous_, kind_, height_, ends_);
        std::copy(records_.begin(), records_.end(), bytes.begin() + descriptorSize);
        write(next_, bytes);
        level_.push_back({ firstKey_, next_ });
        const auto written = next_++;
        begin();
        previous_ = written;
    }

    /// The map of nodes in use begins in the header node and goes on in nodes of its own.
    void writeHeader(std::uint32_t root, std::uint64_t leafRecords, std::uint32_t lastLeaf)
    {
        constexpr std::size_t headerMap = 248, headerMapBytes = nodeSize - headerMap - 8;
        constexpr std::size_t mapBytes = nodeSize - descriptorSize - 6;
        const auto firstMap = next_;
        for (std::uint64_t held = 8 * headerMapBytes; held < next_; held += 8 * mapBytes)
            ++next_;
        auto header = node(
            next_ > firstMap ? firstMap : 0, 0, headerKind, 0, { 120, headerMap, nodeSize - 8 });
        put(header, 14, static_cast<std::uint64_t>(height_), 2);
        put(header, 16, root, 4);
        put(header, 20, leafRecords, 4);
        put(header, 24, 1, 4);
        put(header, 28, lastLeaf, 4);
        put(header, 32, nodeSize, 2);
        put(header, 34, 516, 2);
        put(header, 36, next_, 4);
        put(header, 44, nodeSize, 4); // the clump
        put(header, 51, 0xCF, 1);     // names ignore case
        put(header, 52, 6, 4);        // long keys, of varying length in the index too
        fillMap(header, headerMap, 0, headerMapBytes);
        write(0, header);
        for (auto number = firstMap; number < next_; ++number) {
            auto map = node(
                number + 1 < next_ ? number + 1 : 0, 0, mapKind, 0, { descriptorSize + mapBytes });
            fillMap(map, descriptorSize,
                8 * (headerMapBytes + std::uint64_t { number - firstMap } * mapBytes), mapBytes);
            write(number, map);
        }
    }

    void fillMap(Bytes& bytes, std::size_t at, std::uint64_t first, std::size_t size) const
    {
        for (std::size_t i = 0; i < 8 * size && first + i < next_; ++i)
            bytes[at + i / 8] = static_cast<std::uint8_t>(bytes[at + i / 8] | 0x80 >> i % 8);
    }

    std::ofstream& file_;
    const std::uint64_t offset_;
    std::uint8_t kind_ = leafKind;
    int height_ = 1;
    std::uint32_t next_ = 1, previous_ = 0;
    std::uint64_t added_ = 0;
    Bytes records_, firstKey_;
    std::vector<std::size_t> ends_;
    std::vector<Child> level_;
};

Bytes thread(std::uint32_t parent, const std::string& name, bool isFolder)
{
    Bytes data;
    append(data, isFolder ? 3 : 4, 2);
    append(data, parent, 6);
    appendName(data, name);
    return data;
}

constexpr std::uint32_t date = 0xE0000000; // 2023

Bytes item(std::uint32_t id, bool isFolder, std::uint32_t content)
{
    Bytes data(isFolder ? 88 : 248);
    put(data, 0, isFolder ? 1 : 2, 2);
    put(data, 4, isFolder ? filesPerFolder : 0, 4); // how many items the folder holds
    put(data, 8, id, 4);
    for (const std::size_t at : { 12u, 16u, 20u, 24u })
        put(data, at, date, 4);
    if (!isFolder)
        putFork(data, 88, 6500, content);
    return data;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 1;
    const auto files = static_cast<std::uint32_t>(std::stoul(argv[2]));
    const std::uint32_t folders = (files + filesPerFolder - 1) / filesPerFolder;
    const auto folderName
        = [](std::uint32_t folder) { return "MAPPE" + std::to_string(1'000'000 + folder); };
    const auto fileName = [](std::uint32_t file) {
        return "Billede nummer " + std::to_string(100'000'000 + file) + ".jpg";
    };
    const auto fileID = [&](std::uint32_t file) { return firstID + folders + file; };

    // The bitmap of blocks comes first, as long as a catalog of so many files can want.
    const std::uint64_t maxBlocks = 1000 + std::uint64_t { files } * 450 / blockSize;
    const auto bitmapBlocks
        = static_cast<std::uint32_t>((maxBlocks + 8 * blockSize - 1) / (8 * blockSize));
    const std::uint32_t extentsBlock = 1 + bitmapBlocks, contentBlock = extentsBlock + 2,
                        catalogBlock = contentBlock + 2;
    std::ofstream file(argv[1], std::ios::binary | std::ios::trunc);
    CatalogWriter catalog(file, std::uint64_t { catalogBlock } * blockSize);

    catalog.add(keyOf(1, "DISK"), item(rootFolder, true, 0));
    catalog.add(keyOf(rootFolder, ""), thread(1, "DISK", true));
    for (std::uint32_t folder = 0; folder < folders; ++folder)
        catalog.add(keyOf(rootFolder, folderName(folder)), item(firstID + folder, true, 0));
    for (std::uint32_t folder = 0; folder < folders; ++folder) {
        catalog.add(keyOf(firstID + folder, ""), thread(rootFolder, folderName(folder), true));
        for (std::uint32_t i = folder * filesPerFolder;
             i < std::min(files, (folder + 1) * filesPerFolder); ++i)
            catalog.add(keyOf(firstID + folder, fileName(i)), item(fileID(i), false, contentBlock));
    }
    for (std::uint32_t i = 0; i < files; ++i)
        catalog.add(keyOf(fileID(i), ""), thread(firstID + i / filesPerFolder, fileName(i), false));
    const std::uint32_t nodes = catalog.finish();

    const std::uint32_t used = catalogBlock + nodes * (nodeSize / blockSize);
    const std::uint32_t blocks = used + 2; // the last one has the copy of the header
    Bytes bitmap(std::size_t { bitmapBlocks } * blockSize);
    for (std::uint32_t block = 0; block < blocks; ++block)
        if (block < used || block == blocks - 1)
            bitmap.at(block / 8) = static_cast<std::uint8_t>(bitmap[block / 8] | 0x80 >> block % 8);
    Bytes extents(2 * std::size_t { blockSize });
    put(extents, 8, headerKind, 1);
    put(extents, 10, 3, 2);
    put(extents, 32, blockSize, 2);
    put(extents, 34, 10, 2);
    put(extents, 36, 2, 4);
    put(extents, 40, 1, 4);
    put(extents, 248, 0x80, 1);
    for (std::size_t slot = blockSize - 2; const std::uint64_t place : { 14, 120, 248, 4088 }) {
        put(extents, slot, place, 2);
        slot -= 2;
    }
    Bytes header(512);
    put(header, 0, 0x482B0004, 4);
    put(header, 4, 0x100, 4); // was unmounted
    put(header, 8, 0x31302E30, 4);
    for (const std::size_t at : { 16u, 20u, 28u })
        put(header, at, date, 4);
    put(header, 32, files, 4);
    put(header, 36, folders, 4);
    put(header, 40, blockSize, 4);
    put(header, 44, blocks, 4);
    put(header, 48, 1, 4);
    put(header, 64, fileID(files), 4);
    putFork(header, 112, bitmap.size(), 1);
    putFork(header, 192, extents.size(), extentsBlock);
    putFork(header, 272, std::uint64_t { nodes } * nodeSize, catalogBlock);

    const auto write = [&](std::uint64_t at, const Bytes& bytes) {
        file.seekp(static_cast<std::streamoff>(at));
        file.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
    };
    const std::uint64_t size = std::uint64_t { blocks } * blockSize;
    write(1024, header);
    write(blockSize, bitmap);
    write(std::uint64_t { extentsBlock } * blockSize, extents);
    write(std::uint64_t { contentBlock } * blockSize, Bytes(2 * std::size_t { blockSize }, 0x5A));
    write(size - 512, Bytes(512));
    write(size - 1024, header);
    return file.good() ? 0 : 1;
}
