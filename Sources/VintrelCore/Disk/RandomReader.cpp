#include "VintrelCore/Disk/RandomReader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/SweepWindow.h"

#include <algorithm>
#include <cstring>

namespace {

/// Fetched after a jump, which mostly is to a header of a few bytes. Reads that go on from there,
/// hops over a little data included, grow to whole blocks.
constexpr std::size_t leastFetch = 4096;
constexpr std::uint64_t farAway = 65'536;

/// A jump makes the source fill a chunk of its cache.
constexpr std::uint64_t workOfJump = 65'536;

bool contains(std::uint64_t offset, ByteView bytes, std::uint64_t absolute)
{
    return absolute >= offset && absolute - offset < bytes.size();
}

} // namespace

void RandomReader::moveTo(std::uint64_t start)
{
    start_ = start;
    size_ = start < source_.size() ? source_.size() - start : 0;
    work_ = 0;
    mostWork_ = unlimited;
}

Bytes RandomReader::bytes(std::uint64_t position, std::size_t count)
{
    Bytes result(count);
    read(position, result);
    return result;
}

bool RandomReader::matches(std::uint64_t position, std::string_view text)
{
    std::array<std::uint8_t, 64> bytes;
    const auto compared = std::span(bytes).first(std::min(text.size(), bytes.size()));
    read(position, compared);
    return text.size() <= bytes.size() && ByteView(compared).matches(text, 0);
}

ByteView RandomReader::stretch(std::uint64_t position)
{
    if (position >= size_ || isExhausted())
        return {};
    const std::uint64_t absolute = start_ + position;
    if (!serveFromMemory(absolute) && !fetch(absolute))
        return {};
    return near_.span().subspan(static_cast<std::size_t>(absolute - nearOffset_));
}

std::optional<std::uint64_t> RandomReader::find(
    std::string_view pattern, std::uint64_t from, std::uint64_t limit)
{
    if (pattern.empty() || pattern.size() > size_)
        return std::nullopt;
    const std::uint64_t end
        = std::min(limit, size_ - pattern.size() + 1); // of the places where a match may begin
    std::uint64_t position = from;
    while (position < end) {
        auto bytes = stretch(position).span();
        if (bytes.empty())
            break; // more work than is allowed
        const std::uint64_t wanted = end - position + pattern.size() - 1;
        bytes
            = bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), wanted)));
        if (bytes.size()
            < pattern.size()) { // a match could lie across the end of what is in memory
            if (matches(position, pattern))
                return position;
            ++position;
            continue;
        }
        const void* match = ::memmem(bytes.data(), bytes.size(), pattern.data(), pattern.size());
        if (match != nullptr) {
            const auto at = static_cast<std::uint64_t>(
                static_cast<const std::uint8_t*>(match) - bytes.data());
            work_ += at;
            return position + at;
        }
        work_ += bytes.size();
        position += bytes.size() - pattern.size() + 1;
    }
    return std::nullopt;
}

void RandomReader::read(std::uint64_t position, std::span<std::uint8_t> into)
{
    work_ += workOfSmallRead + into.size();
    while (!into.empty()) {
        const auto bytes = stretch(position).span();
        const auto count = std::min(bytes.size(), into.size());
        if (count == 0)
            break;
        std::memcpy(into.data(), bytes.data(), count);
        into = into.subspan(count);
        position += count;
    }
    std::ranges::fill(into, std::uint8_t { 0 });
}

/// Makes what is in memory around a byte the place that reads are served from. False when it is not
/// in memory.
bool RandomReader::serveFromMemory(std::uint64_t absolute)
{
    if (contains(nearOffset_, near_, absolute))
        return true;
    if (const auto chunk = window_ != nullptr ? window_->chunkAt(absolute) : std::nullopt) {
        nearOffset_ = chunk->offset;
        near_ = chunk->bytes;
        return true;
    }
    if (contains(previous_.offset, previous_.filled(), absolute))
        std::swap(block_, previous_);
    else if (!contains(block_.offset, block_.filled(), absolute))
        return false;
    nearOffset_ = block_.offset;
    near_ = block_.filled();
    return true;
}

/// Reads the block that begins with the byte's own few KB. False when that is more work than is
/// allowed.
bool RandomReader::fetch(std::uint64_t absolute)
{
    const std::uint64_t offset = absolute - absolute % leastFetch; // whole sectors of any disk
    std::uint64_t count = leastFetch;
    if (block_.size > 0 && offset >= block_.end() && offset - block_.end() < farAway)
        count = std::min(2 * block_.size, blockSize);
    else if (window_ != nullptr && offset > 0
        && window_->chunkAt(offset - 1)) // on from the window's end
        count = farAway;
    count = std::min<std::uint64_t>(count, source_.size() - offset);
    work_ += std::max(count, workOfJump);
    if (isExhausted())
        return false;

    std::swap(block_, previous_);
    block_.offset = offset;
    block_.size = static_cast<std::size_t>(count);
    if (block_.bytes.size() < block_.size)
        block_.bytes.resize(block_.size);
    source_.readReporting(offset, std::span(block_.bytes).first(block_.size), ReadMode::fast);
    nearOffset_ = offset;
    near_ = block_.filled();
    return true;
}
