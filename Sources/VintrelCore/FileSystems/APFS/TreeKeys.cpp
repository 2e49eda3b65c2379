#include "VintrelCore/FileSystems/APFS/TreeKeys.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <algorithm>
#include <iterator>

using namespace APFSFormat;

namespace {

std::string textFrom(ByteView key, std::int64_t start)
{
    const auto bytes = key.sub(start, static_cast<std::int64_t>(key.size())).span();
    return { bytes.begin(), bytes.end() };
}

/// Whether a range ends at this key or before it.
bool endsBefore(const std::optional<APFSTreeKey>& end, const APFSTreeKey& key)
{
    return end && *end <= key;
}

/// Whether a key lies before the end of a range.
bool isBefore(const APFSTreeKey& key, const std::optional<APFSTreeKey>& end)
{
    return !end || key < *end;
}

} // namespace

APFSTreeKey APFSTreeKey::decode(ByteView key, bool isHashed)
{
    const std::uint64_t idAndKind = key.u64le(0);
    APFSTreeKey decoded { idAndKind & objectIDMask, idAndKind >> recordKindShift };
    if (decoded.kind == RecordKind::directoryRecord && isHashed) {
        decoded.number = key.u32le(offsetof(HashedDirectoryKey, nameLengthAndHash));
        decoded.name = textFrom(key, sizeof(HashedDirectoryKey));
    } else if (decoded.kind == RecordKind::directoryRecord
        || decoded.kind == RecordKind::attribute) {
        decoded.name = textFrom(key, sizeof(DirectoryKey));
    } else {
        decoded.number = key.u64le(sizeof(RecordKey));
    }
    return decoded;
}

APFSTreeKey APFSTreeKey::next() const
{
    auto behind = *this;
    behind.name.push_back('\0');
    return behind;
}

std::optional<APFSKeyRange> keysOf(ByteView node, std::uint64_t blockSize, bool isHashed)
{
    std::optional<APFSTreeKey> first;
    std::optional<APFSTreeKey> last;
    APFSNodes::forEachRecord(node, blockSize, {}, [&](ByteView key, std::optional<ByteView>) {
        auto decoded = APFSTreeKey::decode(key, isHashed);
        if (!first || decoded < *first)
            first = decoded;
        if (!last || *last < decoded)
            last = std::move(decoded);
    });
    if (!first)
        return std::nullopt;
    return APFSKeyRange { *first, last->next() };
}

/// The first range that does not end at this key or before it.
APFSKeyRanges::Ranges::iterator APFSKeyRanges::firstBehind(const APFSTreeKey& key)
{
    auto range = ranges_.upper_bound(key);
    if (range != ranges_.begin() && !endsBefore(std::prev(range)->second, key))
        --range;
    return range;
}

void APFSKeyRanges::add(const APFSKeyRange& range)
{
    subtract(range);
    if (isBefore(range.first, range.end))
        ranges_.emplace(range.first, range.end);
}

void APFSKeyRanges::subtract(const APFSKeyRange& range)
{
    auto next = firstBehind(range.first);
    while (next != ranges_.end() && isBefore(next->first, range.end)) {
        const auto [first, end] = *next;
        next = ranges_.erase(next);
        if (first < range.first)
            ranges_.emplace(first, range.first);
        if (range.end && isBefore(*range.end, end))
            ranges_.emplace(*range.end, end);
    }
}

bool APFSKeyRanges::contains(const APFSTreeKey& key) const
{
    const auto behind = ranges_.upper_bound(key);
    return behind != ranges_.begin() && isBefore(key, std::prev(behind)->second);
}

bool APFSKeyRanges::intersects(const APFSKeyRange& range) const
{
    const auto behind = ranges_.lower_bound(range.first);
    return contains(range.first) || (behind != ranges_.end() && isBefore(behind->first, range.end));
}
