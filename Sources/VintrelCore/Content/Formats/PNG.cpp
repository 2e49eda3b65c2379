#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"
#include "VintrelCore/Foundation/CRC32.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <algorithm>
#include <array>
#include <cstddef>

// W3C "Portable Network Graphics (PNG) Specification": chunks with a checksum each. The picture is
// one zlib stream over all "IDAT" chunks, and every row of it begins with the number of a filter;
// so foreign bytes show long before the end of a large chunk.

namespace Content::Formats {

namespace {

using Compression::Inflater;

constexpr std::string_view signature = "\x89PNG\r\n\x1A\n";
constexpr std::uint32_t maxChunkSize = 0x7FFF'FFFF;
constexpr std::uint64_t checksumSize = 4;

struct Chunk {
    BE32 length;                      // 0  of the data
    std::array<std::uint8_t, 4> type; // 4

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }
};
static_assert(sizeof(Chunk) == 8 && alignof(Chunk) == 1);

struct Header {
    BE32 width, height;                          // 0, 4
    std::uint8_t depth, colour;                  // 8, 9
    std::uint8_t compression, filter, interlace; // 10, 11, 12
};
static_assert(sizeof(Header) == 13);

bool isLetter(std::uint8_t byte) { return (byte & ~0x20) >= 'A' && (byte & ~0x20) <= 'Z'; }

/// The rows of a picture as they come out of the stream, in up to seven passes.
class Rows {
public:
    Rows() = default;
    explicit Rows(const Header& header)
        : width_(header.width)
        , height_(header.height)
        , isInterlaced_(header.interlace != 0)
    {
        constexpr std::array<std::uint8_t, 7> channels { 1, 0, 3, 1, 2, 0, 4 };
        bitsPerPixel_ = header.colour < channels.size()
            ? std::uint64_t { channels[header.colour] } * header.depth
            : 0;
        beginPass();
    }
    /// Whether it has a size, and a pixel that the standard knows.
    bool isSound() const { return width_ > 0 && height_ > 0 && bitsPerPixel_ > 0; }
    bool isAtEnd() const { return rowsLeft_ == 0; }

    /// False when the bytes hold a filter that there is not, or more than the picture has room for.
    bool add(ByteView bytes)
    {
        for (std::size_t at = 0; at < bytes.size();) {
            if (rowsLeft_ == 0)
                return false;
            constexpr std::uint8_t lastFilter = 4;
            if (inRow_ == 0 && bytes.data()[at] > lastFilter)
                return false;
            const auto count = std::min<std::uint64_t>(rowSize_ - inRow_, bytes.size() - at);
            inRow_ += count;
            at += static_cast<std::size_t>(count);
            if (inRow_ == rowSize_)
                nextRow();
        }
        return true;
    }

private:
    static constexpr int passes = 7;

    void nextRow()
    {
        inRow_ = 0;
        if (--rowsLeft_ == 0 && isInterlaced_) {
            ++pass_;
            beginPass();
        }
    }

    /// Goes to the first pass from this one on that has pixels.
    void beginPass()
    {
        if (!isInterlaced_) {
            setPass(width_, height_);
            return;
        }
        // Adam7: the first column and row of each pass, and the steps between its columns and rows.
        constexpr std::array<std::uint8_t, passes> firstX { 0, 4, 0, 2, 0, 1, 0 };
        constexpr std::array<std::uint8_t, passes> firstY { 0, 0, 4, 0, 2, 0, 1 };
        constexpr std::array<std::uint8_t, passes> stepX { 8, 8, 4, 4, 2, 2, 1 };
        constexpr std::array<std::uint8_t, passes> stepY { 8, 8, 8, 4, 4, 2, 2 };
        for (; pass_ < passes && rowsLeft_ == 0; ++pass_) {
            const auto columns = (width_ + stepX[pass_] - 1 - firstX[pass_]) / stepX[pass_];
            const auto rows = (height_ + stepY[pass_] - 1 - firstY[pass_]) / stepY[pass_];
            if (columns > 0 && rows > 0) {
                setPass(columns, rows);
                return;
            }
        }
    }

    void setPass(std::uint64_t columns, std::uint64_t rows)
    {
        rowsLeft_ = rows;
        rowSize_ = 1 + (columns * bitsPerPixel_ + 7) / 8;
    }

    std::uint64_t width_ = 0, height_ = 0; ///< in pixels
    bool isInterlaced_ = false;
    std::uint64_t bitsPerPixel_ = 0;
    std::size_t pass_ = 0;
    std::uint64_t rowsLeft_ = 0;
    std::uint64_t rowSize_ = 0, inRow_ = 0; ///< in bytes, with the number of the filter
};

class PNGChecker final : public Walker<PNGChecker> {
public:
    bool step(FileBytes& file)
    {
        if (position() == 0)
            return readSignature(file);
        if (!isInChunk_)
            return readHeader(file);
        return position() < dataEnd_ ? readData(file) : readChecksum(file);
    }

private:
    bool readSignature(FileBytes& file)
    {
        if (file.size() < signature.size())
            return false;
        if (!isAt(file, 0, signature)) {
            breakAt(signature.size() - 1);
            return true;
        }
        moveTo(signature.size());
        return true;
    }

    bool readHeader(FileBytes& file)
    {
        const auto chunk = load<Chunk>(file, position());
        if (!chunk)
            return false;
        const bool isFirst = position() == signature.size();
        if (chunk->length > maxChunkSize || !std::ranges::all_of(chunk->type, isLetter)
            || chunk->is("IHDR") != isFirst || (isFirst && chunk->length != sizeof(Header))) {
            breakAt(position() + sizeof(Chunk) - 1);
            return true;
        }
        chunk_ = *chunk;
        crc_ = {};
        crc_.add(chunk->type);
        isInChunk_ = true;
        moveTo(position() + sizeof(Chunk));
        dataEnd_ = position() + chunk->length;
        return true;
    }

    /// False where it does not describe a picture.
    bool readPictureHeader(FileBytes& file)
    {
        rows_ = Rows(load<Header>(file, dataEnd_ - sizeof(Header)).value_or(Header {}));
        if (Compression::hasZlib())
            inflater_.emplace(Inflater::Wrapping::zlib);
        return rows_.isSound();
    }

    bool readData(FileBytes& file)
    {
        const auto bytes = file.stretch(position(),
            static_cast<std::size_t>(std::min<std::uint64_t>(readSize, dataEnd_ - position())));
        if (bytes.empty())
            return false;
        crc_.add(bytes);
        const auto start = position();
        moveTo(start + bytes.size());
        if (chunk_.is("IDAT") && inflater_)
            inflatePicture(bytes, start);
        return true;
    }

    void inflatePicture(ByteView bytes, std::uint64_t start)
    {
        std::array<std::uint8_t, readSize> unpacked;
        for (std::size_t done = 0; !isInflated_;) {
            const auto progress = inflater_->unpack(bytes.span().subspan(done), unpacked);
            done += progress.consumed;
            const bool isSound = rows_.add(ByteView(std::span(unpacked).first(progress.produced)));
            isInflated_ = progress.state == Inflater::State::ended;
            if (!isSound || progress.state == Inflater::State::damaged
                || (isInflated_ && !rows_.isAtEnd())) {
                breakAt(start + done);
                return;
            }
            if (progress.consumed == 0 && progress.produced == 0)
                return;
        }
    }

    bool readChecksum(FileBytes& file)
    {
        const auto checksum = load<BE32>(file, dataEnd_);
        if (!checksum)
            return false;
        const auto end = dataEnd_ + checksumSize;
        if (*checksum != crc_.value()) {
            breakAt(end - 1);
            return true;
        }
        moveTo(end);
        vouchUpTo(end);
        isInChunk_ = false;
        hasPicture_ |= chunk_.is("IDAT");
        if (chunk_.is("IHDR") && !readPictureHeader(file))
            breakAt(end);
        else if (chunk_.is("IEND"))
            finish(end);
        return true;
    }

    void finish(std::uint64_t end)
    {
        if (!hasPicture_ || (inflater_ && !isInflated_))
            breakAt(end);
        else
            endAt(end, Proof::checksum);
    }

    Chunk chunk_ {};
    bool isInChunk_ = false;
    std::uint64_t dataEnd_ = 0; ///< of the chunk
    CRC32 crc_;
    Rows rows_;
    std::optional<Inflater> inflater_; ///< none before the picture's header, or without zlib
    bool isInflated_ = false;
    bool hasPicture_ = false;
};

} // namespace

std::unique_ptr<Checker> png() { return std::make_unique<PNGChecker>(); }

} // namespace Content::Formats
