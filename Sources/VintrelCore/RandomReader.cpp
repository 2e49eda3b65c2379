#include "VintrelCore/RandomReader.h"

#include "VintrelCore/DiskSource.h"

#include <algorithm>
#include <cstring>

namespace {

/// Fetched after a jump, which mostly is to a header of a few bytes. Reads that go on from there grow to whole blocks.
constexpr std::size_t leastFetch = 4096;

/// What finding the place of a small read is taken to cost.
constexpr std::uint64_t workOfSmallRead = 16;

ByteView from(std::uint64_t offset, ByteView bytes, std::uint64_t absolute)
{
    if (absolute < offset || absolute - offset >= bytes.size())
        return {};
    return bytes.span().subspan(static_cast<std::size_t>(absolute - offset));
}

} // namespace

void RandomReader::moveTo(std::uint64_t start)
{
    start_ = start;
    size_ = start < source_.size() ? source_.size() - start : 0;
    work_ = 0;
    mostWork_ = unlimited;
}

void RandomReader::setWindow(std::uint64_t offset, ByteView bytes)
{
    windowOffset_ = offset;
    window_ = bytes;
}

ByteView RandomReader::Block::from(std::uint64_t absolute) const
{
    return ::from(offset, std::span(bytes).first(size), absolute);
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
    if (const auto bytes = known(absolute); !bytes.empty())
        return bytes;
    fetch(absolute);
    return block_.from(absolute);
}

RandomReader::Search RandomReader::search(std::string_view pattern, std::uint64_t from, std::uint64_t limit)
{
    if (pattern.empty() || pattern.size() > size_)
        return { std::nullopt, from };
    const std::uint64_t end = std::min(limit, size_ - pattern.size() + 1); // of the places where a match may begin
    std::uint64_t position = from;
    while (position < end) {
        auto bytes = stretch(position).span();
        if (bytes.empty())
            break; // more work than is allowed
        const std::uint64_t wanted = end - position + pattern.size() - 1;
        bytes = bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), wanted)));
        work_ += bytes.size();
        if (bytes.size() < pattern.size()) { // a match could lie across the end of what is in memory
            work_ += workOfSmallRead;
            if (matches(position, pattern))
                return { position, position };
            ++position;
            continue;
        }
        const void* match = ::memmem(bytes.data(), bytes.size(), pattern.data(), pattern.size());
        if (match != nullptr) {
            position += static_cast<std::uint64_t>(static_cast<const std::uint8_t*>(match) - bytes.data());
            return { position, position };
        }
        position += bytes.size() - pattern.size() + 1;
    }
    return { std::nullopt, position };
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

ByteView RandomReader::known(std::uint64_t absolute)
{
    if (const auto bytes = from(windowOffset_, window_, absolute); !bytes.empty())
        return bytes;
    if (const auto bytes = block_.from(absolute); !bytes.empty())
        return bytes;
    if (previous_.from(absolute).empty())
        return {};
    std::swap(block_, previous_);
    return block_.from(absolute);
}

void RandomReader::fetch(std::uint64_t absolute)
{
    // Whole sectors of any disk, so that no read has to be taken apart.
    const std::uint64_t offset = absolute - absolute % leastFetch;
    std::size_t count = leastFetch;
    if (block_.size > 0 && offset == block_.end())
        count = std::min(2 * block_.size, blockSize);
    else if (!window_.empty() && absolute == windowOffset_ + window_.size())
        count = blockSize / 8;
    std::swap(block_, previous_);
    block_.offset = offset;
    block_.size = static_cast<std::size_t>(std::min<std::uint64_t>(count, source_.size() - offset));
    if (block_.bytes.size() < block_.size)
        block_.bytes.resize(block_.size);
    source_.readReporting(offset, std::span(block_.bytes).first(block_.size), ReadMode::fast);
    work_ += block_.size;
}
