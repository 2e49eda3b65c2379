#include "VintrelCore/FileSystems/NTFS/Rebuild/NumberGroups.h"

#include <algorithm>
#include <map>
#include <unordered_set>

namespace NTFSRebuild {

namespace {

/// Volumes, or states of one, that are told apart by numbers alone.
constexpr std::size_t maxGroups = 8;

/// A group in the making.
struct NumberedGroup {
    RecordGroup records;
    std::unordered_set<std::uint64_t> numbers;

    bool hasRoomFor(const RecordGroup& piece) const
    {
        return records.front().size == piece.front().size
            && std::ranges::none_of(
                piece, [&](const LooseRecord& record) { return numbers.contains(record.number); });
    }
    void add(const RecordGroup& piece)
    {
        for (const auto& record : piece) {
            records.push_back(record);
            numbers.insert(record.number);
        }
    }
};

/// Records whose distance from the beginning of their MFT is the same: pieces of an MFT, the
/// largest first, because a stray copy of a record must not part the pieces of an MFT.
std::vector<RecordGroup> piecesOf(std::span<const LooseRecord> records)
{
    // By where an MFT in one piece would begin; this may wrap around.
    std::map<std::uint64_t, RecordGroup> byStart;
    for (const auto& record : records)
        byStart[record.offset - record.number * record.size].push_back(record);
    std::vector<RecordGroup> pieces;
    pieces.reserve(byStart.size());
    for (auto& [start, piece] : byStart)
        pieces.push_back(std::move(piece));
    std::ranges::sort(pieces, [](const RecordGroup& one, const RecordGroup& other) {
        return one.size() != other.size() ? one.size() > other.size()
                                          : one.front().offset < other.front().offset;
    });
    return pieces;
}

} // namespace

std::vector<RecordGroup> groupByNumber(std::span<const LooseRecord> records)
{
    std::vector<NumberedGroup> groups;
    for (const auto& piece : piecesOf(records)) {
        auto group = std::ranges::find_if(
            groups, [&](const NumberedGroup& other) { return other.hasRoomFor(piece); });
        if (group == groups.end() && groups.size() < maxGroups)
            group = groups.emplace(group);
        else if (group == groups.end()) // older states of a volume that was formatted repeatedly
            --group;
        group->add(piece);
    }
    std::vector<RecordGroup> result;
    result.reserve(groups.size());
    for (auto& group : groups)
        result.push_back(std::move(group.records));
    return result;
}

} // namespace NTFSRebuild
