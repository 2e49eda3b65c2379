#include "VintrelCore/FileSystems/APFS/Tree.h"

#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Sorting.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <algorithm>
#include <tuple>
#include <unordered_set>

using namespace APFSFormat;

APFSSameFiles::APFSSameFiles(const FileNode& root)
{
    root.forEachDescendant([&](const FileNode& node, std::size_t) {
        if (!node.isDirectory() && node.status == EntryStatus::existing)
            files_.emplace(node.fsID, &node);
    });
}

bool APFSSameFiles::contains(const FileNode& file) const
{
    const auto same = files_.find(file.fsID);
    return same != files_.end() && same->second->size == file.size
        && same->second->data == file.data;
}

std::string APFSFileTree::displayed(std::string_view stored)
{
    if (Unicode::isASCII(stored))
        return std::string(stored);
    std::string name;
    while (!stored.empty())
        Unicode::append(name, Unicode::takeFirst(stored));
    return name;
}

APFSFileTree::APFSFileTree(APFSContainerState& state, APFSKnownObjects& known, FileNode& root)
    : state_(state)
    , content_(state)
    , known_(known)
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
        && names.front().leaf.xid < inode->leaf.xid;
    if (inode != nullptr && (names.empty() || (isOutdated && inode->name.length > 0)))
        names.insert(names.begin(),
            Link { inode->id, inode->leaf, inode->parent, inode->name, inode->isFolder(), true });
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
            [](const Link& one, const Link& other) { return one.leaf.xid > other.leaf.xid; });
    }
    return names;
}

/// The nodes of all objects, which have no folders yet.
std::vector<APFSFileTree::NewNode> APFSFileTree::makeTree(
    const APFSFileRecords& records, EntryStatus status)
{
    std::vector<NewNode> added;
    std::vector<APFSKnownObjects::Object> found;
    forEachObject(records, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
        for (const auto& link : namesOf(records, inode, links, States::one)) {
            added.push_back({ id, link.parent, makeNode(records, nullptr, inode, link, status) });
            if (added.back().node->isDirectory()) { // has one name
                addFolder(id, *added.back().node);
                break;
            }
        }
    });
    known_.add(found);
    return added;
}

void APFSFileTree::addTree(const APFSFileRecords& live, EntryStatus status)
{
    auto added = makeTree(live, status);
    if (status == EntryStatus::existing)
        addInUse(live);
    hang(std::move(added));
    if (const auto* inode = live.inode(rootFolderID)) {
        root_.created = TimeConversion::fromAPFS(inode->created);
        root_.modified = TimeConversion::fromAPFS(inode->modified);
    }
}

void APFSFileTree::addDifferent(const APFSFileRecords& records, const APFSSameFiles& living)
{
    auto added = makeTree(records, EntryStatus::existing);
    std::unordered_map<std::uint64_t, std::uint64_t> parents; // of folders
    for (const auto& file : added)
        if (file.node->isDirectory())
            parents.emplace(file.id, file.parent);
    std::unordered_set<std::uint64_t> wanted; // folders
    for (const auto& file : added) {
        if (file.node->isDirectory() || living.contains(*file.node))
            continue;
        auto folder = file.parent;
        while (wanted.insert(folder).second && parents.contains(folder))
            folder = parents.at(folder);
    }
    std::erase_if(added, [&](const NewNode& file) {
        const bool isWanted
            = file.node->isDirectory() ? wanted.contains(file.id) : !living.contains(*file.node);
        if (!isWanted && file.node->isDirectory())
            folders_.erase(file.id);
        return !isWanted;
    });
    hang(std::move(added));
}

void APFSFileTree::addInUse(const APFSFileRecords& live)
{
    const auto& blocks = state_.blocks();
    for (const auto& extent : live.extents())
        if (blocks.isValid(extent.block) && extent.length > 0 && !extent.leaf.isStandIn)
            state_.chances().addInUse(
                { extent.block, extent.block + unitsFor(extent.length, blocks.blockSize()) });
}

/// Whether a deleted file lay in other blocks than the one that has its name now: programs that
/// save write a new file and give it the name of the old one.
bool APFSFileTree::hasOtherBlocks(const APFSFileRecords& old, const Inode& inode,
    const APFSFileRecords& live, std::uint64_t liveID)
{
    const auto* replacement = live.inode(liveID);
    if (inode.isFolder() || (replacement != nullptr && replacement->isFolder()))
        return false;
    const auto now = replacement != nullptr ? live.extentsOf(replacement->privateID)
                                            : std::span<const APFSFileRecords::Extent>();
    const auto isShared = [&](const APFSFileRecords::Extent& extent) {
        const auto same
            = std::ranges::lower_bound(now, extent.logical, {}, &APFSFileRecords::Extent::logical);
        return extent.block == 0
            || (same != now.end() && same->logical == extent.logical
                && same->block == extent.block);
    };
    return !std::ranges::all_of(old.extentsOf(inode.privateID), isShared);
}

void APFSFileTree::addDeleted(const APFSFileRecords& old, const APFSFileRecords& live)
{
    if (old.inodes().empty() && old.links().empty())
        return;
    std::vector<const Link*> byName;
    for (const auto& link : live.links())
        if (!link.isSibling)
            byName.push_back(&link);
    const auto nameKey
        = [&](const Link* link) { return std::tuple(link->parent, live.text(link->name)); };
    sortIfNeeded(byName, {}, nameKey);

    std::vector<NewNode> added;
    std::vector<APFSKnownObjects::Object> found;
    forEachObject(old, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        const auto names = known_.contains(id) ? std::vector<Link>()
                                               : namesOf(old, inode, links, States::several);
        if (names.empty() || (inode == nullptr && !names.front().isFolder))
            return;
        const auto& name = names.front();
        const auto wanted = std::tuple(name.parent, old.text(name.name));
        const auto same = std::ranges::lower_bound(byName, wanted, {}, nameKey);
        if (same != byName.end() && nameKey(*same) == wanted) {
            // What was in a folder that was made anew hangs there.
            if (const auto folder = folders_.find((*same)->id); folder != folders_.end())
                addFolder(id, *folder->second);
            if (inode == nullptr || !hasOtherBlocks(old, *inode, live, (*same)->id))
                return;
        }
        added.push_back(
            { id, name.parent, makeNode(old, &live, inode, name, EntryStatus::deleted) });
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
        if (added.back().node->isDirectory())
            addFolder(id, *added.back().node);
    });
    known_.add(found);
    hang(std::move(added));
}

void APFSFileTree::addLost(const APFSFileRecords& lost, FileNode& orphans)
{
    std::vector<NewNode> added;
    std::vector<APFSKnownObjects::Object> found;
    forEachObject(lost, [&](std::uint64_t id, const Inode* inode, std::span<const Link> links) {
        const auto names = known_.contains(id) ? std::vector<Link>()
                                               : namesOf(lost, inode, links, States::several);
        if (names.empty() || (inode == nullptr && !names.front().isFolder))
            return;
        added.push_back({ id, names.front().parent,
            makeNode(lost, nullptr, inode, names.front(), EntryStatus::deleted) });
        found.push_back({ id, inode != nullptr ? inode->created : 0 });
    });
    known_.add(found);
    const auto listed = folders_; // the new ones may not outlive this call: their owner decides
    for (const auto& file : added)
        if (file.node->isDirectory())
            addFolder(file.id, *file.node);
    hangBelow(orphans, std::move(added));
    folders_ = listed;
}

FileNode* APFSFileTree::orphans() const
{
    for (auto* folder : root_.folders())
        if (folder->name == orphansName && folder->status == EntryStatus::orphaned)
            return folder;
    return nullptr;
}

/// How the new nodes hang together. What hangs in the tree already counts as the root.
ParentLinks APFSFileTree::linksBetween(const std::vector<NewNode>& added) const
{
    std::unordered_map<const FileNode*, ParentLinks::Index> indices; // of the new folders
    for (ParentLinks::Index i = 0; i < added.size(); ++i)
        if (added[i].node->isDirectory())
            indices.emplace(added[i].node.get(), i);
    std::vector<ParentLinks::Index> parents;
    parents.reserve(added.size());
    for (const auto& file : added) {
        const auto parent = folders_.find(file.parent);
        if (parent == folders_.end()) {
            parents.push_back(ParentLinks::none);
            continue;
        }
        const auto index = indices.find(parent->second);
        parents.push_back(index != indices.end() ? index->second : ParentLinks::root);
    }
    return ParentLinks(std::move(parents));
}

/// Gives every node to its folder. Those without one, and one of each ring of folders, become
/// orphans in the volume's own folder for them.
void APFSFileTree::hang(std::vector<NewNode> added)
{
    const auto links = linksBetween(added);
    auto* orphanFolder = orphans();
    for (std::size_t i = 0; i < added.size(); ++i) {
        auto& [id, parent, node] = added[i];
        if (links.parentOf(i) != ParentLinks::none) {
            folders_.at(parent)->add(std::move(node));
            continue;
        }
        if (orphanFolder == nullptr)
            orphanFolder
                = &root_.add(FileNode::makeFolder(std::string(orphansName), EntryStatus::orphaned));
        if (node->status == EntryStatus::existing)
            node->status = EntryStatus::orphaned;
        orphanFolder->add(std::move(node));
    }
}

/// The same below `orphans` instead of the root: there are copies of the volume's folders.
void APFSFileTree::hangBelow(FileNode& orphans, std::vector<NewNode> added)
{
    const auto links = linksBetween(added);
    std::unordered_map<FileNode*, FileNode*> copies { { &root_, &orphans },
        { &orphans, &orphans } };
    for (const auto& file : added)
        if (file.node->isDirectory())
            copies.emplace(file.node.get(), file.node.get());
    for (std::size_t i = 0; i < added.size(); ++i) {
        auto& [id, parent, node] = added[i];
        auto& folder = links.parentOf(i) == ParentLinks::none
            ? orphans
            : copyIn(orphans, *folders_.at(parent), copies);
        folder.add(std::move(node));
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
        if (!isFolder)
            judge(*node, Doubt::missingInode);
        return node;
    }
    node->created = TimeConversion::fromAPFS(inode->created);
    node->modified = TimeConversion::fromAPFS(inode->modified);
    if (!isFolder)
        content_.fill(*node, records, live, *inode);
    content_.attach(*node, records, *inode);
    if (link.leaf.isStandIn || inode->leaf.isStandIn)
        noteDoubts(*node, Doubt::olderRecord);
    return node;
}
