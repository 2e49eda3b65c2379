#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "CIFF Specification on Image Data File" 1.0 (Canon): a heap whose directory lies at its end. Its
// last four bytes say where the directory begins, and nothing in front says where the heap ends.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 2> byteOrder; //  0  "II"
    LE32 size;                             //  2  of this header
    std::array<std::uint8_t, 8> type;      //  6  "HEAPCCDR"
    LE32 version;                          // 14
    std::array<std::uint8_t, 8> reserved;  // 18
};
static_assert(sizeof(Header) == 26);

struct Entry {
    LE16 tag;    // 0
    LE32 size;   // 2
    LE32 offset; // 6  from the start of the heap
};
static_assert(sizeof(Entry) == 10);

constexpr std::uint64_t limit = 67'108'864;
constexpr std::uint16_t maxEntries = 64;
constexpr std::uint16_t rawData = 0x2005;
constexpr std::uint16_t preview = 0x2007;
constexpr std::size_t workPerByte = 4;

/// The first directory of the heap at `heap` that ends in front of its own place: where the heap
/// ends. Looks at every byte from `from` on; 0 when none is left.
std::uint64_t nextEnd(RandomReader& file, std::uint64_t heap, std::uint64_t from)
{
    constexpr std::uint64_t largest = sizeof(LE16) + maxEntries * sizeof(Entry);
    std::uint32_t last = 0; // the four bytes in front of the position
    for (auto position = from - sizeof last; position < limit;) {
        const auto bytes = file.stretch(position).span();
        if (bytes.empty() || file.isExhausted())
            break;
        file.addWork(bytes.size() * workPerByte);
        for (const auto byte : bytes) {
            last = last >> 8 | std::uint32_t { byte } << 24;
            ++position;
            const std::uint64_t length = position - sizeof last - heap - last;
            if (position >= from && position >= heap + sizeof last && length > sizeof(LE16)
                && length <= largest && (length - sizeof(LE16)) % sizeof(Entry) == 0)
                return position;
        }
    }
    return 0;
}

/// Whether an entry keeps its value in itself.
bool isInline(const Entry& entry) { return entry.tag >> 14 != 0; }

/// Whether a heap inside the heap ends with the place of its own directory.
bool holdsHeap(RandomReader& file, std::uint64_t start, std::uint64_t size)
{
    return size > sizeof(LE32) && file.u32le(start + size - sizeof(LE32)) < size - sizeof(LE32);
}

/// Whether what ends at `end` is the directory of the heap at `heap`, with a picture.
bool isDirectory(RandomReader& file, std::uint64_t heap, std::uint64_t end)
{
    const std::uint64_t place = file.u32le(end - sizeof(LE32));
    const std::uint64_t directory = heap + place;
    const auto count = file.u16le(directory);
    bool hasPicture = false;
    if (directory + sizeof(LE16) + std::uint64_t { count } * sizeof(Entry) != end - sizeof(LE32))
        return false;
    for (std::uint16_t i = 0; i < count; ++i) {
        const auto entry = file.load<Entry>(directory + sizeof(LE16) + i * sizeof(Entry));
        if (isInline(entry))
            continue;
        const auto kind = entry.tag & 0x3800;
        if (entry.size > place || entry.offset > place - entry.size
            || ((kind == 0x2800 || kind == 0x3000)
                && !holdsHeap(file, heap + entry.offset, entry.size))
            || (entry.tag == preview && file.u16be(heap + entry.offset) != 0xFFD8))
            return false;
        hasPicture |= entry.tag == rawData;
    }
    return hasPicture;
}

} // namespace

Found crw(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    if (!ByteView(header.type).matches("HEAPCCDR", 0) || header.size < sizeof header)
        return std::nullopt;
    const std::uint64_t heap = header.size;
    auto end = nextEnd(file, heap, heap + sizeof(LE32));
    while (end != 0 && !isDirectory(file, heap, end))
        end = nextEnd(file, heap, end + 1);
    return end != 0 ? Found(candidate.proved(end, "crw")) : std::nullopt;
}

} // namespace Formats
