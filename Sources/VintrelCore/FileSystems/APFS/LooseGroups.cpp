#include "VintrelCore/FileSystems/APFS/LooseGroups.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

using namespace APFSFormat;

namespace {

/// More groups than disks have volumes are damage, and each costs a walk over all others.
constexpr std::size_t maxGroups = 64;

constexpr std::int64_t conflict = -1;

/// Against a number alone: every volume begins with the same ones, and many files have the same
/// name.
constexpr std::int64_t dateWeight = 8;
constexpr std::int64_t nameWeight = 2;

std::uint64_t mixed(std::uint64_t one, std::uint64_t other)
{
    constexpr std::uint64_t odd = 0x9E3779B97F4A7C15;
    return (one ^ (other + odd + (one << 6) + (one >> 2))) * odd;
}

/// Above 0 when the directory records of a leaf have hashes, below 0 when they have none.
std::int64_t hashVotes(ByteView leaf)
{
    std::int64_t votes = 0;
    APFSNodes::forEachRecord(leaf, leaf.size(), {}, [&](ByteView key, std::optional<ByteView>) {
        if (key.u64le(0) >> recordKindShift != RecordKind::directoryRecord)
            return;
        const std::uint32_t hashed
            = key.u32le(offsetof(HashedDirectoryKey, nameLengthAndHash)) & nameLengthMask;
        const std::uint32_t plain = key.u16le(offsetof(DirectoryKey, nameLength));
        votes += key.size() == sizeof(HashedDirectoryKey) + hashed ? 1 : 0;
        votes -= key.size() == sizeof(DirectoryKey) + plain ? 1 : 0;
    });
    return votes;
}

} // namespace

APFSLooseGroups::Index APFSLooseGroups::rootOf(Index leaf)
{
    while (parents_[leaf] != leaf)
        leaf = parents_[leaf] = parents_[parents_[leaf]];
    return leaf;
}

/// Leaves that have the same object, made at the same time, belong together.
void APFSLooseGroups::join(Index leaf, std::uint64_t key)
{
    const auto [known, isNew] = leafByKey_.emplace(key, leaf);
    if (!isNew)
        parents_[rootOf(leaf)] = rootOf(known->second);
}

void APFSLooseGroups::add(std::uint64_t offset, ByteView leaf)
{
    const Index index = parts_.size();
    parents_.push_back(index);
    auto& part = parts_.emplace_back();
    part.leaves.push_back(offset);
    part.hashedVotes = hashVotes(leaf);
    APFSFileRecords records;
    records.addLeaf(leaf, leaf.size(), part.hashedVotes > 0, {});
    const auto name = [&](APFSFileRecords::Text text) {
        return std::hash<std::string_view> {}(records.text(text));
    };
    for (const auto& inode : records.inodes()) {
        part.highestID = std::max(part.highestID, inode.id);
        if (inode.id < firstUserID)
            continue; // every volume has them
        part.created.emplace(inode.id, inode.created);
        part.names.insert(mixed(mixed(inode.id, inode.parent), name(inode.name)));
        join(index, mixed(inode.id, inode.created));
    }
    for (const auto& link : records.links()) {
        part.highestID = std::max(part.highestID, link.id);
        part.named.push_back(link.id);
        part.names.insert(mixed(mixed(link.id, link.parent), name(link.name)));
    }
    for (const auto& extent : records.extents()) {
        part.highestID = std::max(part.highestID, extent.owner);
        part.named.push_back(extent.owner);
    }
}

void APFSLooseGroups::merge(Part& group, Part&& part)
{
    group.leaves.insert(group.leaves.end(), part.leaves.begin(), part.leaves.end());
    group.created.merge(part.created);
    group.names.merge(part.names);
    group.hashedVotes += part.hashedVotes;
    group.highestID = std::max(group.highestID, part.highestID);
}

void APFSLooseGroups::joinSame(Part& part, Part&& leaf)
{
    part.named.insert(part.named.end(), leaf.named.begin(), leaf.named.end());
    merge(part, std::move(leaf));
}

/// What the leaves have in common joins, the largest part first.
std::vector<APFSLooseGroups::Part> APFSLooseGroups::joinedParts()
{
    std::unordered_map<Index, Index> places; // by root
    std::vector<Part> joined;
    for (Index leaf = 0; leaf < parts_.size(); ++leaf) {
        const auto [place, isNew] = places.emplace(rootOf(leaf), joined.size());
        if (isNew)
            joined.push_back(std::move(parts_[leaf]));
        else
            joinSame(joined[place->second], std::move(parts_[leaf]));
    }
    parts_.clear();
    std::ranges::stable_sort(joined, std::ranges::greater {},
        [](const Part& part) { return std::pair(part.created.size(), part.leaves.size()); });
    return joined;
}

/// How much a part and a group tell of the same objects; `conflict` when they disagree about more
/// than they agree about.
std::int64_t APFSLooseGroups::agreement(const Part& group, const Part& part)
{
    std::int64_t dates = 0;
    std::int64_t names = 0;
    std::int64_t numbers = 0;
    for (const auto& [id, created] : part.created)
        if (const auto known = group.created.find(id); known != group.created.end())
            dates += known->second == created ? 1 : -1;
    for (const auto id : part.named)
        numbers += group.created.contains(id) ? 1 : 0;
    for (const auto name : part.names)
        names += group.names.contains(name) ? 1 : 0;
    return dates < 0 ? conflict : dateWeight * dates + nameWeight * names + numbers;
}

std::vector<APFSLooseGroups::Group> APFSLooseGroups::take()
{
    std::vector<Part> groups;
    for (auto& part : joinedParts()) {
        Part* best = nullptr;
        auto bestAgreement = conflict;
        bool isTied = false;
        for (auto& group : groups) {
            const auto found = agreement(group, part);
            isTied = found == bestAgreement ? isTied || best != nullptr
                                            : isTied && found < bestAgreement;
            if (found > bestAgreement) {
                best = &group;
                bestAgreement = found;
            }
        }
        // What can be of several volumes would give one of them the content of another.
        if (isTied && part.created.empty())
            continue;
        if (best != nullptr)
            merge(*best, std::move(part));
        else if (groups.size() < maxGroups)
            groups.push_back(std::move(part));
    }
    std::vector<Group> found;
    for (auto& group : groups) {
        std::ranges::sort(group.leaves);
        found.push_back({ std::move(group.leaves), group.hashedVotes >= 0, group.highestID });
    }
    std::ranges::stable_sort(
        found, std::ranges::greater {}, [](const Group& group) { return group.leaves.size(); });
    return found;
}
