#include "VintrelCore/FileSystems/APFS/Tree.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>
#include <map>
#include <tuple>

using namespace APFSFormat;

namespace {

/// Appends to a list of extents; neighbours on the source become one.
void append(ExtentList& extents, Extent extent)
{
    if (!extents.empty()) {
        auto& last = extents.back();
        const bool meets
            = last.offset && extent.offset && *last.offset + last.length == *extent.offset;
        if (meets || (!last.offset && !extent.offset)) {
            last.length += extent.length;
            return;
        }
    }
    extents.push_back(extent);
}

/// Of versions of a file's extents that cover each other the newest parts, by logical address. What
/// an extent covers is cut at `size`.
std::vector<APFSFileRecords::Extent> newestParts(
    std::span<const APFSFileRecords::Extent> versions, std::uint64_t size, std::uint64_t blockSize)
{
    std::vector<APFSFileRecords::Extent> byAge(versions.begin(), versions.end());
    std::ranges::stable_sort(byAge,
        [](const auto& one, const auto& other) { return one.origin.xid > other.origin.xid; });
    std::map<std::uint64_t, APFSFileRecords::Extent> parts; // apart from each other
    for (const auto& version : byAge) {
        if (version.logical >= size)
            continue;
        const std::uint64_t end
            = version.logical + std::min(version.length, size - version.logical);
        std::uint64_t at = version.logical;
        auto next = parts.upper_bound(at);
        if (next != parts.begin())
            at = std::max(at, std::prev(next)->second.logical + std::prev(next)->second.length);
        // Each gap that is filled is gone, so that all turns together are no more than there are
        // versions, twice.
        while (at < end) {
            const std::uint64_t partEnd = next == parts.end() ? end : std::min(end, next->first);
            if (partEnd > at) {
                auto part = version;
                const std::uint64_t skipped = at - version.logical;
                part.logical = at;
                part.length = partEnd - at;
                if (part.block != 0)
                    part.block += skipped / blockSize;
                parts.emplace_hint(next, at, part);
            }
            if (next == parts.end())
                break;
            at = next->second.logical + next->second.length;
            ++next;
        }
    }
    std::vector<APFSFileRecords::Extent> result;
    result.reserve(parts.size());
    for (const auto& [at, part] : parts)
        result.push_back(part);
    return result;
}

} // namespace

std::string APFSFileTree::displayed(std::string_view stored)
{
    std::string name;
    while (!stored.empty())
        Unicode::append(name, Unicode::takeFirst(stored));
    return name;
}

APFSFileTree::APFSFileTree(APFSContainer& container, FileNode& root)
    : container_(container)
    , root_(root)
{
    folders_.emplace(rootFolderID, &root);
}

/// Calls `visit(id, inode, links)` for every object of the user's that the records know of, in
/// ascending order; the inode may be none.
template <class Visit> void APFSFileTree::forEachObject(const APFSFileRecords& records, Visit visit)
{
    auto inode = records.inodes().begin();
    auto link = records.links().begin();
    const auto inodesEnd = records.inodes().end();
    const auto linksEnd = records.links().end();
    while (inode != inodesEnd || link != linksEnd) {
        const std::uint64_t id = link == linksEnd || (inode != inodesEnd && inode->id < link->id)
            ? inode->id
            : link->id;
        const auto firstLink = link;
        while (link != linksEnd && link->id == id)
            ++link;
        const bool hasInode = inode != inodesEnd && inode->id == id;
        if (id >= firstUserID)
            visit(id, hasInode ? &*inode : nullptr, std::span<const Link>(firstLink, link));
        if (hasInode)
            ++inode;
    }
}

/// The names of an object outside the private folder, each once and the newest first: those that
/// folders list and, where there are none, those that the object itself knows. Of several states
/// the object may know a newer name.
std::vector<APFSFileRecords::Link> APFSFileTree::namesOf(
    const APFSFileRecords& records, const Inode* inode, std::span<const Link> links, States states)
{
    const bool isListed
        = std::ranges::any_of(links, [](const Link& link) { return !link.isSibling; });
    std::vector<Link> names;
    for (const auto& link : links)
        if (link.isSibling != isListed)
            names.push_back(link);
    const bool isOutdated = states == States::several && inode != nullptr && !names.empty()
        && names.front().origin.xid < inode->origin.xid;
    if (inode != nullptr && (names.empty() || (isOutdated && inode->name.length > 0)))
        names.insert(names.begin(),
            Link { inode->id, inode->origin, inode->parent, inode->name, inode->isFolder(), true });
    names.erase(std::remove_if(names.begin(), names.end(),
                    [](const Link& link) {
                        return link.parent == privateFolderID || link.parent == rootParentID;
                    }),
        names.end());
    if (names.size() > 1) {
        const auto key
            = [&](const Link& link) { return std::tuple(link.parent, records.text(link.name)); };
        std::ranges::stable_sort(names, {}, key);
        const auto isSame
            = [&](const Link& one, const Link& other) { return key(one) == key(other); };
        names.erase(std::unique(names.begin(), names.end(), isSame), names.end());
        std::ranges::stable_sort(names,
            [](const Link& one, const Link& other) { return one.origin.xid > other.origin.xid; });
    }
    return names;
}

void APFSFileTree::addExisting(const APFSFileRecords& live)
{
    std::vector<Placed> placed;
    std::vector<Known> found;
    forEachObject(live, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
        for (const auto& link : namesOf(live, inode, links, States::one)) {
            placed.push_back(
                { id, link.parent, makeNode(live, nullptr, inode, link, EntryStatus::existing) });
            if (placed.back().node->isDirectory()) { // has one name
                addFolder(id, *placed.back().node);
                break;
            }
        }
    });
    remember(std::move(found));
    for (const auto& extent : live.extents())
        if (container_.isValid(extent.block) && extent.length > 0)
            container_.addInUse(
                { extent.block, extent.block + (extent.length - 1) / container_.blockSize() + 1 });
    place(std::move(placed), nullptr);
    if (const auto* inode = live.inode(rootFolderID)) {
        root_.created = TimeConversion::fromAPFS(inode->created);
        root_.modified = TimeConversion::fromAPFS(inode->modified);
    }
}

void APFSFileTree::addDeleted(const APFSFileRecords& old, const APFSFileRecords& live)
{
    std::vector<const Link*> byName;
    for (const auto& link : live.links())
        if (!link.isSibling)
            byName.push_back(&link);
    const auto nameKey
        = [&](const Link* link) { return std::tuple(link->parent, live.text(link->name)); };
    std::ranges::sort(byName, {}, nameKey);

    std::vector<Placed> placed;
    std::vector<Known> found;
    forEachObject(old, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        const auto names
            = isKnown(id) ? std::vector<Link>() : namesOf(old, inode, links, States::several);
        if (names.empty() || (inode == nullptr && !names.front().isFolder))
            return;
        const auto& name = names.front();
        const auto wanted = std::tuple(name.parent, old.text(name.name));
        const auto same = std::ranges::lower_bound(byName, wanted, {}, nameKey);
        if (same != byName.end() && nameKey(*same) == wanted) {
            // What was in a folder that was made anew has its place there.
            if (const auto folder = folders_.find((*same)->id); folder != folders_.end())
                addFolder(id, *folder->second);
            return;
        }
        placed.push_back(
            { id, name.parent, makeNode(old, &live, inode, name, EntryStatus::deleted) });
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
        if (placed.back().node->isDirectory())
            addFolder(id, *placed.back().node);
    });
    remember(std::move(found));
    place(std::move(placed), nullptr);
}

void APFSFileTree::addLost(const APFSFileRecords& lost, FileNode& orphans)
{
    std::vector<Placed> placed;
    std::vector<Known> found;
    forEachObject(lost, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        const auto names
            = isKnown(id) ? std::vector<Link>() : namesOf(lost, inode, links, States::several);
        if (names.empty() || (inode == nullptr && !names.front().isFolder))
            return;
        placed.push_back({ id, names.front().parent,
            makeNode(lost, nullptr, inode, names.front(), EntryStatus::deleted) });
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
    });
    remember(std::move(found));
    const auto listed = folders_; // the new ones may not outlive this call: their owner decides
    for (const auto& file : placed)
        if (file.node->isDirectory())
            addFolder(file.id, *file.node);
    place(std::move(placed), &orphans);
    folders_ = listed;
}

const std::uint64_t* APFSFileTree::createdOf(std::uint64_t id) const
{
    const auto found = std::ranges::lower_bound(known_, id, {}, &Known::id);
    return found != known_.end() && found->id == id ? &found->created : nullptr;
}

FileNode* APFSFileTree::orphans() const
{
    for (auto* folder : root_.folders())
        if (folder->name == orphansName && folder->status == EntryStatus::orphaned)
            return folder;
    return nullptr;
}

void APFSFileTree::remember(std::vector<Known> found)
{
    known_.insert(known_.end(), found.begin(), found.end());
    std::ranges::sort(known_, {}, &Known::id);
}

/// Gives every node to its folder. Those without one, and one of each ring of folders, become
/// orphans: in `orphans`, or in the volume's own folder for them.
void APFSFileTree::place(std::vector<Placed> placed, FileNode* orphans)
{
    // Follows the parents from each new folder up to what was placed already, and takes rings
    // apart.
    enum class State { waiting, onPath, done };
    struct Folder {
        std::uint64_t parent;
        State state;
    };
    std::unordered_map<std::uint64_t, Folder> waiting;
    for (const auto& file : placed)
        if (file.node->isDirectory())
            waiting.emplace(file.id, Folder { file.parent, State::waiting });
    for (auto& file : placed) {
        std::vector<Folder*> path;
        for (auto next = waiting.find(file.id);
             next != waiting.end() && next->second.state != State::done;
             next = waiting.find(next->second.parent)) {
            if (next->second.state == State::onPath) {
                path.back()->parent = 0;
                break;
            }
            next->second.state = State::onPath;
            path.push_back(&next->second);
        }
        for (auto* folder : path)
            folder->state = State::done;
    }

    const bool hasOwnPlace = orphans != nullptr;
    std::unordered_map<FileNode*, FileNode*> copies;
    if (hasOwnPlace) {
        copies.emplace(&root_, orphans);
        copies.emplace(orphans, orphans);
        for (const auto& file : placed)
            if (file.node->isDirectory())
                copies.emplace(file.node.get(), file.node.get());
    }
    for (auto& file : placed) {
        const auto self = waiting.find(file.id);
        const auto parent
            = folders_.find(self != waiting.end() ? self->second.parent : file.parent);
        auto* folder = parent != folders_.end() && parent->second != file.node.get()
            ? parent->second
            : nullptr;
        if (folder == nullptr) {
            if (orphans == nullptr)
                orphans = this->orphans();
            if (orphans == nullptr)
                orphans = &root_.add(
                    FileNode::makeFolder(std::string(orphansName), EntryStatus::orphaned));
            folder = orphans;
            if (file.node->status == EntryStatus::existing)
                file.node->status = EntryStatus::orphaned;
        } else if (hasOwnPlace) {
            folder = &copyIn(*orphans, *folder, copies);
        }
        folder->add(std::move(file.node));
    }
}

/// The copy of one of the volume's folders among the orphans, with those above it. What stands
/// there already is its own copy.
FileNode& APFSFileTree::copyIn(
    FileNode& orphans, FileNode& folder, std::unordered_map<FileNode*, FileNode*>& copies) const
{
    std::vector<FileNode*> path;
    auto* above = &folder;
    while (above != nullptr && !copies.contains(above)) {
        path.push_back(above);
        above = above->parent();
    }
    auto* copy = above != nullptr ? copies.at(above) : &orphans;
    const bool isInPlace = above == copy;
    for (auto original = path.rbegin(); original != path.rend(); ++original) {
        if (isInPlace) {
            copy = *original;
        } else {
            auto node = FileNode::makeFolder((*original)->name, (*original)->status);
            node->created = (*original)->created;
            node->modified = (*original)->modified;
            node->fsID = (*original)->fsID;
            copy = &copy->add(std::move(node));
        }
        copies.emplace(*original, copy);
    }
    return *copy;
}

std::unique_ptr<FileNode> APFSFileTree::makeNode(const APFSFileRecords& records,
    const APFSFileRecords* live, const Inode* inode, const Link& link, EntryStatus status)
{
    auto name = displayed(records.text(link.name));
    if (name.empty())
        name = "unavngivet-" + std::to_string(link.id);
    const bool isFolder = inode != nullptr ? inode->isFolder() : link.isFolder;
    auto node = isFolder ? FileNode::makeFolder(std::move(name), status)
                         : FileNode::makeFile(std::move(name), 0, status);
    node->fsID = link.id;
    if (inode == nullptr) {
        if (!isFolder) {
            node->recoverability = Recoverability::poor;
            node->addNote("Filens inode blev ikke fundet");
        }
        return node;
    }
    node->created = TimeConversion::fromAPFS(inode->created);
    node->modified = TimeConversion::fromAPFS(inode->modified);
    if (!isFolder)
        fill(*node, records, live, *inode);
    return node;
}

void APFSFileTree::fill(
    FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live, const Inode& inode)
{
    using Kind = APFSFileRecords::Attribute::Kind;
    node.size = inode.size;
    const auto* compression = records.attribute(inode.id, Kind::compression);
    if (inode.isCompressed || (compression != nullptr && inode.size == 0)) {
        if (compression != nullptr)
            node.size = compression->size;
        node.data = ExtentList {};
        node.recoverability = Recoverability::poor;
        node.addNote("APFS-komprimeret fil – indholdet ligger i en skjult attribut og kan ikke "
                     "gendannes direkte");
        return;
    }
    if (inode.isSymlink()) {
        const auto* link = records.attribute(inode.id, Kind::symlink);
        auto target = link != nullptr ? records.text(link->target) : std::string_view();
        if (!container_.takeExtents(
                1 + target.size() / sizeof(Extent))) // it may have many names too
            target = {};
        node.size = target.size();
        node.data = Bytes(target.begin(), target.end());
        node.recoverability = target.empty() ? Recoverability::poor : Recoverability::good;
        if (target.empty())
            node.addNote("Linkets mål blev ikke fundet");
        return;
    }
    if (node.size == 0 && records.attribute(inode.id, Kind::resourceFork) != nullptr)
        node.addNote("Filen har kun en ressourcegren, som ikke gendannes");
    fillExtents(node, records, live, inode);
}

void APFSFileTree::fillExtents(
    FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live, const Inode& inode)
{
    auto stored = records.extentsOf(inode.privateID);
    const bool isShared
        = stored.empty() && live != nullptr && !live->extentsOf(inode.privateID).empty();
    if (isShared) // a clone that still exists has them
        stored = live->extentsOf(inode.privateID);
    ExtentList extents;
    node.data = ExtentList {};
    if (!container_.takeExtents(stored.size())) {
        node.recoverability = Recoverability::poor;
        node.addNote("For mange filer deler de samme blokke");
        return;
    }
    std::uint64_t at = 0;
    bool isIncomplete = false;
    bool isHeld = inode.origin.isHeldBySnapshot;
    for (const auto& part : newestParts(stored, node.size, container_.blockSize())) {
        if (part.logical > at) {
            append(extents, { std::nullopt, part.logical - at });
            isIncomplete = isIncomplete || !inode.isSparse;
        }
        const auto offset
            = container_.isValid(part.block) ? container_.offsetOf(part.block) : std::nullopt;
        append(extents, { offset, part.length });
        isIncomplete = isIncomplete
            || (part.block != 0 && (!offset || part.length > container_.source().size() - *offset));
        isHeld = isHeld && part.origin.isHeldBySnapshot;
        at = part.logical + part.length;
    }
    if (at < node.size) {
        append(extents, { std::nullopt, node.size - at });
        isIncomplete = isIncomplete || !inode.isSparse;
    }
    node.data = std::move(extents);
    if (isIncomplete) {
        const bool isLost = stored.empty() || node.status != EntryStatus::existing;
        node.recoverability = isLost ? Recoverability::poor : Recoverability::partial;
        node.addNote(
            stored.empty() ? "Filens blokke kendes ikke" : "Kun dele af filens blokke kendes");
    } else if (node.status == EntryStatus::existing || isShared || isHeld) {
        node.recoverability = Recoverability::good;
        if (isHeld && node.status != EntryStatus::existing)
            node.addNote("Bevaret i et snapshot");
    } else {
        container_.estimateLater(node);
    }
}
