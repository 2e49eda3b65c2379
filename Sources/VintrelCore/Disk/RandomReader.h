#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

class DiskSource;
class SweepWindow;

/// A small buffered reader for code that walks a structure of unknown length with many small reads,
/// above all the carving of files. Positions are bytes from `start`. It never fails: unreadable
/// bytes are zeros, and so are those beyond the end of the source. Damaged areas are skipped
/// quickly and not retried sector by sector. Used by one thread.
class RandomReader {
public:
    /// The most that one read fetches. Two such blocks are the whole buffer, so that a walk that
    /// goes back and forth between two regions reads each of them once.
    static constexpr std::size_t blockSize = 1'048'576;

    static constexpr std::uint64_t workOfSmallRead = 64;

    /// What reading may cost, in bytes looked at, when nobody sets a limit.
    static constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

    /// `window`: of a sweep that goes over the source at the same time; none when there is none.
    /// What it holds is not read again, and what it will hold soon it reads early.
    RandomReader(DiskSource& source, std::uint64_t start, SweepWindow* window = nullptr)
        : source_(source)
        , window_(window)
    {
        moveTo(start);
    }

    /// Begins anew at another start. What lies in the buffer stays there: neighbouring walks read
    /// the same bytes.
    void moveTo(std::uint64_t start);
    /// To be told whenever the window has moved.
    void windowMoved() { near_ = {}; }

    /// Byte offset of position 0 on the source.
    std::uint64_t start() const { return start_; }
    /// Bytes from the start of the source to its end, or to the start when that lies beyond it.
    std::uint64_t sourceSize() const { return start_ + size_; }
    /// Bytes from the start to the end of the source; 0 when the start lies beyond it.
    std::uint64_t size() const { return size_; }

    /// A `T` copied out of the bytes at `position`, with zeros in place of those past the end.
    template <class T>
    requires(std::is_trivially_copyable_v<T> && alignof(T) == 1) T load(std::uint64_t position)
    {
        std::array<std::uint8_t, sizeof(T)> bytes;
        const std::uint64_t at = position + start_ - nearOffset_;
        if (position <= size_ && near_.size() >= sizeof(T) && at <= near_.size() - sizeof(T)
            && !isExhausted()) {
            work_ += workOfSmallRead;
            std::memcpy(bytes.data(), near_.data() + at, sizeof(T));
        } else {
            read(position, bytes);
        }
        return std::bit_cast<T>(bytes);
    }
    std::uint8_t u8(std::uint64_t position) { return load<std::uint8_t>(position); }
    std::uint16_t u16le(std::uint64_t position) { return load<LE16>(position); }
    std::uint32_t u32le(std::uint64_t position) { return load<LE32>(position); }
    std::uint64_t u64le(std::uint64_t position) { return load<LE64>(position); }
    std::uint16_t u16be(std::uint64_t position) { return load<BE16>(position); }
    std::uint32_t u32be(std::uint64_t position) { return load<BE32>(position); }
    std::uint64_t u64be(std::uint64_t position) { return load<BE64>(position); }

    /// Exactly `count` bytes, zeros past the end. Whoever takes the count from the disk limits it
    /// first.
    Bytes bytes(std::uint64_t position, std::size_t count);
    bool matches(std::uint64_t position, std::string_view text);

    /// The bytes from `position` on that are in memory already or come with one read; empty at and
    /// past the end. Valid until the next call of anything.
    ByteView stretch(std::uint64_t position);

    /// The first place in [from, limit) where `pattern` begins and lies wholly before the end of
    /// the source.
    std::optional<std::uint64_t> find(
        std::string_view pattern, std::uint64_t from, std::uint64_t limit);
    std::optional<std::uint64_t> find(std::uint8_t byte, std::uint64_t from, std::uint64_t limit)
    {
        const char pattern = static_cast<char>(byte);
        return find(std::string_view(&pattern, 1), from, limit);
    }

    /// What has been done since the last `moveTo`, in bytes looked at. Small reads, and above all
    /// jumps to what is not in memory, count for as many bytes as could be searched in their time.
    std::uint64_t work() const { return work_; }
    /// Told by those who look through a stretch themselves.
    void addWork(std::size_t bytes) { work_ += bytes; }
    /// As soon as `work` exceeds `most`, reads answer zero and searches nothing.
    void limitWork(std::uint64_t most) { mostWork_ = most; }
    bool isExhausted() const { return work_ > mostWork_; }

private:
    struct Block {
        std::uint64_t offset = 0;
        std::size_t size = 0; ///< how much of `bytes` is filled
        Bytes bytes;

        std::uint64_t end() const { return offset + size; }
        ByteView filled() const { return std::span(bytes).first(size); }
    };

    void read(std::uint64_t position, std::span<std::uint8_t> into);
    bool serveFromMemory(std::uint64_t absolute);
    bool fetch(std::uint64_t absolute);

    DiskSource& source_;
    std::uint64_t start_ = 0;
    std::uint64_t size_ = 0;
    SweepWindow* window_;
    Block block_;
    Block previous_;
    std::uint64_t nearOffset_ = 0; ///< of near_ on the source
    ByteView near_; ///< where the last read was served from: a chunk of the window, or a block
    std::uint64_t work_ = 0;
    std::uint64_t mostWork_ = unlimited;
};
