#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

// "Multimedia Programming Interface and Data Specifications 1.0" (IBM, Microsoft), Resource
// Interchange File Format; "OpenDML AVI File Format Extensions" for films in several such forms;
// EBU Tech 3306, "RF64", for sound beyond 4 GiB. Chunks say their lengths, and the index of a film
// names every chunk of it once more.

namespace Content::Formats {

namespace {

constexpr std::size_t maxDepth = 8;
constexpr std::size_t maxStreams = 100; // their numbers have two digits
constexpr std::uint32_t inWideSizes = 0xFFFF'FFFF;

struct ChunkHeader {
    std::array<std::uint8_t, 4> id; // 0
    LE32 size;                      // 4  of what follows
    bool is(std::string_view name) const { return ByteView(id).matches(name, 0); }
};
static_assert(sizeof(ChunkHeader) == 8);

/// A chunk that holds chunks begins with their kind.
struct FormHeader {
    ChunkHeader chunk;                // 0
    std::array<std::uint8_t, 4> form; // 8
    bool is(std::string_view name) const { return ByteView(form).matches(name, 0); }
};
static_assert(sizeof(FormHeader) == 12);

/// The first chunk of an RF64 file, whose narrow sizes are all ones.
struct WideSizes {
    ChunkHeader chunk; //  0  "ds64"
    LE64 fileSize;     //  8  less the first eight bytes
    LE64 dataSize;     // 16
};
static_assert(sizeof(WideSizes) == 24);

/// One line of the chunk "idx1".
struct IndexEntry {
    std::array<std::uint8_t, 4> id; //  0
    LE32 flags;                     //  4
    LE32 offset;                    //  8  of the chunk, from "movi" or from the file's start
    LE32 size;                      // 12
};
static_assert(sizeof(IndexEntry) == 16);

bool isPrintable(std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; }
bool isDigit(std::uint8_t byte) { return byte >= '0' && byte <= '9'; }

/// Chunks are padded to an even length.
std::uint64_t padded(std::uint64_t size) { return size + size % 2; }

/// The number of the stream whose data a chunk in "movi" holds; none for other chunks.
std::optional<std::size_t> streamOf(const ChunkHeader& chunk)
{
    constexpr std::array<std::string_view, 5> kinds { "db", "dc", "wb", "pc", "tx" };
    const bool isData = isDigit(chunk.id[0]) && isDigit(chunk.id[1])
        && std::ranges::any_of(
            kinds, [&](std::string_view kind) { return ByteView(chunk.id).matches(kind, 2); });
    return isData ? std::optional<std::size_t>((chunk.id[0] - '0') * 10 + (chunk.id[1] - '0'))
                  : std::nullopt;
}

bool mayStandInFilm(const ChunkHeader& chunk)
{
    return streamOf(chunk) || chunk.is("LIST") || chunk.is("JUNK")
        || (chunk.is("ix") && isDigit(chunk.id[2]) && isDigit(chunk.id[3]));
}

class RIFFChecker final : public Walker<RIFFChecker> {
public:
    bool step(FileBytes& file)
    {
        if (!ends_.empty() && position() == ends_.back())
            return leave();
        if (ends_.empty())
            return length_ == 0 ? readForm(file) : readNextForm(file);
        if (indexEnd_ > position())
            return readIndex(file);
        return readChunk(file);
    }

private:
    bool breakHere(std::size_t length)
    {
        breakAt(position() + length - 1);
        return true;
    }

    bool readForm(FileBytes& file)
    {
        const auto header = load<FormHeader>(file, 0);
        if (!header)
            return false;
        const bool isWide = header->chunk.is("RF64") || header->chunk.is("BW64");
        std::uint64_t size = header->chunk.size;
        if (isWide) {
            const auto sizes = load<WideSizes>(file, sizeof(FormHeader));
            if (!sizes)
                return false;
            size = sizes->fileSize;
            dataSize_ = sizes->dataSize;
        }
        constexpr std::uint64_t maxSize = std::uint64_t { 1 } << 40;
        if ((!header->chunk.is("RIFF") && !isWide) || size < sizeof header->form || size > maxSize)
            return breakHere(sizeof(FormHeader));
        isFilm_ = header->is("AVI ");
        enter(sizeof(ChunkHeader) + size, sizeof(FormHeader));
        return true;
    }

    /// What comes behind a form: one more of a long film, or the end.
    bool readNextForm(FileBytes& file)
    {
        const auto header = load<FormHeader>(file, length_);
        if (isFilm_ && !header && !file.isWhole())
            return false;
        if (!isFilm_ || !header || !header->chunk.is("RIFF") || !header->is("AVIX")
            || header->chunk.size < sizeof header->form) {
            endAt(length_, Proof::chain);
            return true;
        }
        vouchUpTo(position());
        enter(length_ + sizeof(ChunkHeader) + header->chunk.size, sizeof(FormHeader));
        return true;
    }

    void enter(std::uint64_t end, std::uint64_t headerSize)
    {
        ends_.push_back(end);
        moveTo(position() + headerSize);
    }

    bool leave()
    {
        const auto end = ends_.back();
        ends_.pop_back();
        if (ends_.size() < filmDepth_)
            filmDepth_ = 0;
        if (ends_.empty())
            length_ = end;
        else
            moveTo(std::min(padded(end), ends_.back()));
        return true;
    }

    bool readChunk(FileBytes& file)
    {
        const auto chunk = load<ChunkHeader>(file, position());
        const auto left = ends_.back() - position();
        if (left < sizeof(ChunkHeader)) { // no chunk has room there
            if (file.size() < ends_.back())
                return false;
            moveTo(ends_.back());
            return true;
        }
        if (!chunk)
            return false;
        std::uint64_t size = chunk->size;
        if (size == inWideSizes && chunk->is("data") && dataSize_ > 0)
            size = dataSize_;
        const bool isNamed
            = filmDepth_ > 0 ? mayStandInFilm(*chunk) : std::ranges::all_of(chunk->id, isPrintable);
        if (!isNamed || size > left - sizeof(ChunkHeader))
            return breakHere(sizeof(ChunkHeader));
        if (chunk->is("LIST") && size >= sizeof(LE32) && ends_.size() < maxDepth)
            return readList(file, size);
        if (!isPlausible(file, *chunk))
            return file.size() < position() + sizeof(ChunkHeader) + sizeof(LE32) && !file.isWhole()
                ? false
                : breakHere(sizeof(ChunkHeader) + sizeof(LE32));
        vouchUpTo(position());
        if (isFilm_ && chunk->is("idx1"))
            return enterIndex(size);
        const auto end = std::min(position() + sizeof(ChunkHeader) + padded(size), ends_.back());
        if (file.size() < end)
            return false;
        moveTo(end);
        return true;
    }

    bool readList(FileBytes& file, std::uint64_t size)
    {
        const auto header = load<FormHeader>(file, position());
        if (!header)
            return false;
        vouchUpTo(position());
        if (isFilm_ && header->is("movi")) {
            filmStart_ = position() + offsetof(FormHeader, form);
            filmDepth_ = ends_.size() + 1;
        }
        enter(position() + sizeof(ChunkHeader) + size, sizeof(FormHeader));
        return true;
    }

    /// Whether a picture in a film begins as the first one of its stream did, where that began with
    /// a mark.
    bool isPlausible(FileBytes& file, const ChunkHeader& chunk)
    {
        const auto stream = filmDepth_ > 0 ? streamOf(chunk) : std::nullopt;
        const bool isPicture = stream && (chunk.id[2] == 'd') && chunk.size >= sizeof(LE32);
        if (!isPicture)
            return true;
        const auto begin = load<BE32>(file, position() + sizeof(ChunkHeader));
        if (!begin)
            return false;
        constexpr std::uint32_t jpeg = 0xFFD8FF, startCode = 0x000001;
        const std::uint32_t mark = *begin >> 8;
        auto& mine = marks_.at(*stream);
        if (!mine)
            mine = mark == jpeg || mark == startCode ? mark : 0;
        return *mine == 0 || *mine == mark;
    }

    bool enterIndex(std::uint64_t size)
    {
        moveTo(position() + sizeof(ChunkHeader));
        indexEnd_ = position() + size / sizeof(IndexEntry) * sizeof(IndexEntry);
        enter(position() + size, 0);
        return true;
    }

    bool readIndex(FileBytes& file)
    {
        const auto entry = load<IndexEntry>(file, position());
        if (!entry)
            return false;
        if (!indexBase_)
            indexBase_ = isTold(file, *entry, 0) ? 0 : filmStart_;
        if (!isTold(file, *entry, *indexBase_))
            return breakHere(sizeof(IndexEntry));
        moveTo(position() + sizeof(IndexEntry));
        vouchUpTo(position());
        return true;
    }

    /// Whether the chunk lies where the entry says, counted from `base`.
    static bool isTold(FileBytes& file, const IndexEntry& entry, std::uint64_t base)
    {
        const auto chunk = load<ChunkHeader>(file, base + entry.offset);
        return chunk && chunk->id == entry.id && (chunk->size == entry.size || chunk->is("LIST"));
    }

    std::vector<std::uint64_t> ends_; ///< of the form and of the lists that are open
    std::uint64_t length_ = 0;        ///< of the forms that were left
    std::uint64_t dataSize_ = 0;      ///< of a wide file's sound
    bool isFilm_ = false;
    std::uint64_t filmStart_ = 0; ///< of the word "movi"
    std::size_t filmDepth_ = 0;   ///< of "movi" while it is open
    std::uint64_t indexEnd_ = 0;
    std::optional<std::uint64_t> indexBase_;
    std::array<std::optional<std::uint32_t>, maxStreams> marks_; ///< 0: a stream has none
};

} // namespace

std::unique_ptr<Checker> riff() { return std::make_unique<RIFFChecker>(); }

} // namespace Content::Formats
