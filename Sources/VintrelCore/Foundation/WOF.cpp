#include "VintrelCore/Foundation/WOF.h"

#include "VintrelCore/Foundation/Compression/WindowsFormats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <iterator>

namespace WOF {

namespace {

constexpr std::uint32_t reparseTag = 0x8000'0017; // IO_REPARSE_TAG_WOF
constexpr std::uint32_t fileProvider = 2;         // the other one keeps images of systems
constexpr std::uint32_t knownVersion = 1;

/// The header of a reparse point, WOF_EXTERNAL_INFO and FILE_PROVIDER_EXTERNAL_INFO.
struct StoredReparsePoint {
    LE32 tag;                        //  0
    LE16 length, unused;             //  4, 6
    LE32 version, provider;          //  8, 12
    LE32 providerVersion, algorithm; // 16, 20
    LE32 flags;                      // 24
};
static_assert(sizeof(StoredReparsePoint) == reparseSize);

/// In the order of the numbers of the algorithms.
constexpr Method methods[] = { Method::xpress4K, Method::lzx, Method::xpress8K, Method::xpress16K };

/// More chunks are no file of any disk, and would only cost memory: 64 GiB in the smallest ones.
constexpr std::uint64_t maxChunks = 16'777'216;

/// Larger contents have wide entries in their tables.
constexpr std::uint64_t wideFrom = std::uint64_t { 1 } << 32;

} // namespace

std::optional<Method> methodIn(ByteView reparsePoint)
{
    const auto stored = reparsePoint.load<StoredReparsePoint>(0);
    if (!stored || stored->tag != reparseTag || stored->version != knownVersion
        || stored->provider != fileProvider || stored->algorithm >= std::size(methods))
        return std::nullopt;
    return methods[stored->algorithm];
}

std::uint64_t chunkSize(Method method)
{
    switch (method) {
    case Method::xpress4K:
        return 4'096;
    case Method::xpress8K:
        return 8'192;
    case Method::xpress16K:
        return 16'384;
    case Method::lzx:
        return 32'768;
    }
    return 0;
}

std::vector<Chunk> chunksOf(
    Method method, std::uint64_t size, std::uint64_t streamSize, const ReadStream& read)
{
    const auto count = unitsFor(size, chunkSize(method));
    const std::uint64_t width = size >= wideFrom ? sizeof(LE64) : sizeof(LE32);
    if (count == 0 || count > maxChunks || (count - 1) * width > streamSize)
        return {};
    const auto tableSize = (count - 1) * width;
    const auto bytes = read(0, tableSize);
    const ByteView table(bytes);
    std::vector<Chunk> chunks;
    chunks.reserve(static_cast<std::size_t>(count));
    std::uint64_t start = 0; // behind the table
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto end = index + 1 < count
            ? table.uintLE(static_cast<std::int64_t>(index * width), static_cast<int>(width))
            : streamSize - tableSize;
        const bool isPossible
            = start < end && end <= streamSize - tableSize && end - start <= chunkSize(method);
        chunks.push_back({ tableSize + start, isPossible ? end - start : 0 });
        start = end;
    }
    return chunks;
}

std::optional<Bytes> unpack(Method method, ByteView packed, std::uint64_t size)
{
    const auto length = static_cast<std::size_t>(size);
    if (packed.size() == length) // a chunk that would not become smaller is stored as it is
        return Bytes(packed.span().begin(), packed.span().end());
    return method == Method::lzx ? Compression::unpackLZX(packed, length)
                                 : Compression::unpackXpressHuffman(packed, length);
}

} // namespace WOF
