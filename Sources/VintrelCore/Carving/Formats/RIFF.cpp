#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Multimedia Programming Interface and Data Specifications 1.0" (IBM, Microsoft), Resource
// Interchange File Format; "OpenDML AVI File Format Extensions" for films in several such forms;
// EBU Tech 3306, "RF64", and ITU-R BS.2088, "BW64", for sound beyond 4 GiB.

namespace Formats {

namespace {

/// The chunk that a whole file is, or a list inside it.
struct FormChunk {
    std::array<std::uint8_t, 4> id;   // 0  "RIFF"
    LE32 size;                        // 4  of what follows it
    std::array<std::uint8_t, 4> form; // 8
};
static_assert(sizeof(FormChunk) == 12 && offsetof(FormChunk, form) == 8);
constexpr std::uint64_t headerSize = offsetof(FormChunk, form); // of every chunk

/// The sizes that RF64 moved here; the old fields are all ones.
struct WideSizes {
    std::array<std::uint8_t, 4> id; //  0  "ds64"
    LE32 size;                      //  4
    LE64 fileSize;                  //  8  less the first eight bytes
    LE64 dataSize;                  // 16
};
static_assert(sizeof(WideSizes) == 24 && offsetof(WideSizes, dataSize) == 16);

constexpr std::uint64_t minSize = 44; // a wave file without a sample
constexpr int maxChunks = 10'000'000;
constexpr std::uint64_t maxNarrowSize = 0xFFFF'FFFF;

constexpr struct {
    std::string_view form;
    const char* ext;
} forms[] = { { "WAVE", "wav" }, { "AVI ", "avi" }, { "WEBP", "webp" } };

/// Chunks are padded to an even length.
std::uint64_t padded(std::uint64_t size) { return size + size % 2; }

bool isPrintable(std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; }

/// Whether a size was never filled in, because the recorder was cut off or wrote into a pipe. Each
/// program has its own number for that, near the largest that 31 or 32 bits hold.
bool isUnfilled(std::uint64_t size)
{
    return size == 0 || size >= 0xFFFF'FF00 || (size >= 0x7FFF'F000 && size <= 0x8000'0100);
}

/// Where a walk from chunk to chunk ended.
struct ChunkWalk {
    std::uint64_t end = 0;      ///< behind the last chunk that lies before the limit
    bool isWhole = false;       ///< whether that is the limit itself
    std::uint64_t data = 0;     ///< where the chunk "data" begins; 0 without one
    std::uint64_t dataSize = 0; ///< as stated
    bool endsInData = false;    ///< whether nothing follows it: what it holds has no structure
};

/// Walks the chunks from `position` to `limit`, into the lists that hold a film's pictures.
/// `wideDataSize`: of the chunk "data" where its own field cannot say.
ChunkWalk walkChunks(
    RandomReader& file, std::uint64_t position, std::uint64_t limit, std::uint64_t wideDataSize = 0)
{
    ChunkWalk walk { .end = position };
    for (int count = 0; count < maxChunks && walk.end + headerSize <= limit; ++count) {
        const auto chunk = file.load<FormChunk>(walk.end);
        const ByteView id(chunk.id);
        if (!std::ranges::all_of(chunk.id, isPrintable))
            return walk;
        std::uint64_t size = chunk.size;
        const bool isData = id.matches("data", 0);
        if (isData) {
            size = size == maxNarrowSize && wideDataSize != 0 ? wideDataSize : size;
            walk.data = walk.end;
            walk.dataSize = size;
        }
        const ByteView form(chunk.form);
        if (id.matches("LIST", 0) && (form.matches("movi", 0) || form.matches("rec ", 0)))
            size = sizeof(FormChunk) - headerSize;
        if (padded(size) > limit - walk.end - headerSize && size != limit - walk.end - headerSize)
            return walk;
        walk.end = std::min(limit, walk.end + headerSize + padded(size));
        walk.endsInData = isData;
    }
    walk.isWhole = walk.end == limit;
    return walk;
}

/// A wave file whose length nobody filled in: what its chunks say, or else all up to the next find.
Found unfinishedWave(const Candidate& candidate, std::uint64_t statedSize)
{
    auto& file = candidate.file;
    const auto walk = walkChunks(file, sizeof(FormChunk), file.size());
    const bool hasSound = walk.data != 0;
    auto found = candidate.found(statedSize, "wav");
    found.exact = false;
    found.isOpenEnded = !hasSound || isUnfilled(walk.dataSize);
    if (!found.isOpenEnded)
        found.size = walk.data + headerSize + padded(walk.dataSize);
    else if (hasSound)
        found.size = maxNarrowSize + headerSize;
    return found.size < minSize ? Found() : found;
}

/// The forms "AVIX" behind the first one belong to the same film.
void addFurtherForms(RandomReader& file, CarvedFile& film)
{
    for (int count = 0; count < maxChunks; ++count) {
        const auto form = file.load<FormChunk>(film.size);
        if (!ByteView(form.id).matches("RIFF", 0) || !ByteView(form.form).matches("AVIX", 0))
            return;
        const std::uint64_t begin = film.size + sizeof form;
        film.size += headerSize + padded(form.size);
        film.isProved = film.isProved && walkChunks(file, begin, film.size).isWhole;
    }
}

} // namespace

Found riff(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto chunk = file.load<FormChunk>(0);
    const ByteView form(chunk.form);
    if (form.matches("WAVE", 0) && isUnfilled(chunk.size))
        return unfinishedWave(candidate, headerSize + padded(chunk.size));
    const std::uint64_t size = headerSize + padded(chunk.size);
    const auto* const kind
        = std::ranges::find_if(forms, [&](const auto& row) { return form.matches(row.form, 0); });
    if (size < minSize || kind == std::end(forms))
        return std::nullopt;
    auto found = candidate.found(size, kind->ext);
    if (!candidate.fits(size))
        return found;
    const auto walk = walkChunks(file, sizeof chunk, size);
    // One chunk that fills the form proves nothing: whatever lies there now would do.
    const bool isOneChunk = walk.endsInData || form.matches("WEBP", 0);
    found.isProved = walk.isWhole && !isOneChunk;
    if (form.matches("AVI ", 0))
        addFurtherForms(file, found);
    return found;
}

Found wideRIFF(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto sizes = file.load<WideSizes>(sizeof(FormChunk));
    const std::uint64_t length = sizes.fileSize;
    if (!file.matches(headerSize, "WAVE") || !ByteView(sizes.id).matches("ds64", 0)
        || length >= file.size() || !candidate.fits(headerSize + length))
        return std::nullopt;
    const std::uint64_t size = headerSize + length;
    const auto walk = walkChunks(file, sizeof(FormChunk), size, sizes.dataSize);
    if (!walk.isWhole || walk.data == 0)
        return std::nullopt;
    auto found = candidate.found(size, "wav");
    found.isProved = !walk.endsInData;
    return found;
}

} // namespace Formats
