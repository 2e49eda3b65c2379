#include "VintrelCore/Foundation/Decmpfs.h"

#include "VintrelCore/Foundation/Compression/Compression.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <cstddef>

namespace Decmpfs {

namespace {

/// decmpfs_disk_header.
struct StoredHeader {
    LE32 magic, type; // 0, 4
    LE64 size;        // 8
};
static_assert(sizeof(StoredHeader) == headerSize);

constexpr std::uint32_t magicNumber = 0x636D7066; // "fpmc" on disk

/// A file of 64 GiB has as many, and macOS compresses programs and documents.
constexpr std::uint64_t maxBlocks = 1'048'576;

struct TypeRow {
    std::uint32_t type;
    Method method;
    bool isInFork;
};
constexpr TypeRow types[] = {
    { 1, Method::stored, false },
    { 3, Method::zlib, false },
    { 4, Method::zlib, true },
    { 7, Method::lzvn, false },
    { 8, Method::lzvn, true },
    { 9, Method::stored, false },
    { 10, Method::stored, true },
    { 11, Method::lzfse, false },
    { 12, Method::lzfse, true },
};

/// The table of a zlib fork stands in the data of a classic resource fork, behind the length of the
/// one resource, and has places and lengths that count from the number of blocks.
std::vector<Block> zlibBlocks(std::uint64_t count, const ReadFork& read)
{
    struct Entry {
        LE32 offset, length; // 0, 4
    };
    const std::uint64_t data = ByteView(read(0, sizeof(BE32))).u32be(0);
    const std::uint64_t table = data + sizeof(BE32);
    const auto bytes = read(table, sizeof(LE32) + count * sizeof(Entry));
    const std::uint64_t stored = ByteView(bytes).u32le(0);
    std::vector<Block> blocks;
    for (std::uint64_t i = 0; i < std::min(count, stored); ++i) {
        const auto entry = ByteView(bytes).load<Entry>(
            static_cast<std::int64_t>(sizeof(LE32) + i * sizeof(Entry)));
        if (!entry)
            break;
        blocks.push_back({ table + entry->offset, entry->length });
    }
    return blocks;
}

/// That of all others stands at the fork's start: where each block begins, and where the last one
/// ends.
std::vector<Block> plainBlocks(std::uint64_t count, const ReadFork& read)
{
    const auto bytes = read(0, (count + 1) * sizeof(LE32));
    std::vector<Block> blocks;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto at = static_cast<std::int64_t>(i * sizeof(LE32));
        const auto begin = ByteView(bytes).load<LE32>(at);
        const auto end = ByteView(bytes).load<LE32>(at + std::int64_t { sizeof(LE32) });
        if (!begin || !end || *end < *begin)
            break;
        blocks.push_back({ *begin, *end - *begin });
    }
    return blocks;
}

/// Content that gained nothing is stored as it is, behind one byte that says so.
bool isStored(Method method, ByteView packed, std::uint64_t size)
{
    constexpr unsigned zlibMask = 0x0F;
    constexpr std::uint8_t lzvnMarker = 0x06;
    if (packed.size() != size + 1)
        return false;
    const auto first = packed.u8(0);
    switch (method) {
    case Method::stored:
        return true;
    case Method::zlib:
        return (first & zlibMask) == zlibMask;
    case Method::lzvn:
        return first == lzvnMarker;
    case Method::lzfse:
        return !packed.matches("bvx", 0);
    }
    return false;
}

/// An LZVN stream as the one block of an LZFSE stream: magic, unpacked and packed length, the
/// stream, and the magic of the end.
Bytes wrapped(ByteView packed, std::uint64_t size)
{
    Bytes stream { 'b', 'v', 'x', 'n' };
    for (const std::uint64_t number : { size, std::uint64_t { packed.size() } })
        for (int shift = 0; shift < 32; shift += 8)
            stream.push_back(static_cast<std::uint8_t>(number >> shift));
    stream.insert(stream.end(), packed.span().begin(), packed.span().end());
    for (const char letter : { 'b', 'v', 'x', '$' })
        stream.push_back(static_cast<std::uint8_t>(letter));
    return stream;
}

std::optional<std::size_t> unpackInto(Method method, ByteView packed, Bytes& content)
{
    switch (method) {
    case Method::stored:
        std::copy_n(
            packed.span().begin(), std::min(packed.size(), content.size()), content.begin());
        return std::min(packed.size(), content.size());
    case Method::zlib:
        return Compression::unpackZlib(packed.span(), content);
    case Method::lzvn:
        return Compression::unpackLZFSE(wrapped(packed, content.size()), content);
    case Method::lzfse:
        return Compression::unpackLZFSE(packed.span(), content);
    }
    return std::nullopt;
}

} // namespace

std::optional<std::uint64_t> sizeIn(ByteView attribute)
{
    const auto stored = attribute.load<StoredHeader>(0);
    return stored && stored->magic == magicNumber ? std::optional<std::uint64_t>(stored->size)
                                                  : std::nullopt;
}

std::optional<Header> decode(ByteView attribute)
{
    const auto size = sizeIn(attribute);
    if (!size)
        return std::nullopt;
    const std::uint32_t type = attribute.load<StoredHeader>(0)->type;
    const auto* const row = std::ranges::find(types, type, &TypeRow::type);
    if (row == std::end(types))
        return std::nullopt;
    return Header { *size, row->method, row->isInFork };
}

std::vector<Block> blocksOf(const Header& header, std::uint64_t forkSize, const ReadFork& read)
{
    const std::uint64_t count = unitsFor(header.size, blockSize);
    if (count > maxBlocks || count > forkSize / sizeof(LE32)) // each has an entry in the table
        return {};
    return header.method == Method::zlib ? zlibBlocks(count, read) : plainBlocks(count, read);
}

bool canUnpack(Method method)
{
    switch (method) {
    case Method::stored:
        return true;
    case Method::zlib:
        return Compression::hasZlib();
    case Method::lzvn:
    case Method::lzfse:
        return Compression::hasLZFSE();
    }
    return false;
}

std::optional<Bytes> unpack(Method method, ByteView packed, std::uint64_t size)
{
    if (isStored(method, packed, size)) {
        const auto content = packed.span().subspan(1);
        return Bytes(content.begin(), content.end());
    }
    Bytes content(static_cast<std::size_t>(size));
    const auto length = unpackInto(method, packed, content);
    return length == size ? std::optional(std::move(content)) : std::nullopt;
}

} // namespace Decmpfs
