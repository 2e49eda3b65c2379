// From the catalog's entries to the tree of files, with the chance of each.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Context.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <charconv>

using namespace HFSPlusFormat;

namespace {

/// Blocks of a deleted file that are looked up in the allocation bitmap.
constexpr std::uint64_t maxBlockChecks = 1'048'576;

/// Folders whose name begins so are the file system's own and not the user's.
bool isPrivate(std::string_view name) { return name.starts_with('\0'); }

/// The number in the name of a file that hard links stand for: "iNode17".
std::optional<std::uint32_t> inodeNumber(std::string_view name)
{
    constexpr std::string_view prefix = "iNode";
    if (!name.starts_with(prefix))
        return std::nullopt;
    name.remove_prefix(prefix.size());
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? std::optional(number)
                                                                    : std::nullopt;
}

bool isHardLink(const CatalogFile& file)
{
    return file.fileType == hardLinkType && file.fileCreator == hardLinkCreator
        && file.dataFork.logicalSize == 0;
}

} // namespace

std::string HFSContext::nameOf(const CatalogEntry& entry) const
{
    const auto record = catalog_->bytes().sub(entry.at, entry.length);
    return Unicode::composed(
        record.utf16be(sizeof(CatalogKey), record.u16be(offsetof(CatalogKey, nameLength))));
}

void HFSContext::indexHardLinks()
{
    for (const auto& [id, entry] : entries_) {
        const auto parent = entries_.find(entry.parent);
        if (entry.isFolder || parent == entries_.end() || !isPrivate(nameOf(parent->second)))
            continue;
        if (const auto number = inodeNumber(nameOf(entry)))
            inodes_.emplace(*number, id);
    }
}

void HFSContext::linkTree(FileNode& root)
{
    std::vector<std::uint32_t>
        ids; // ascending, so that the order of the nodes does not depend on a hash
    for (const auto& [id, entry] : entries_)
        if (id != rootFolderID)
            ids.push_back(id);
    std::ranges::sort(ids);

    std::vector<std::pair<std::uint32_t, std::unique_ptr<FileNode>>> nodes;
    entries_[rootFolderID].node = &root;
    for (const auto id : ids) {
        auto& entry = entries_[id];
        auto node = makeNode(id, entry);
        if (isPrivate(node->name))
            continue;
        entry.node = node.get();
        nodes.emplace_back(id, std::move(node));
    }
    reaches_[rootFolderID] = true;
    std::unique_ptr<FileNode> orphans;
    for (auto& [id, node] : nodes) {
        if (reaches(id)) {
            entries_[entries_[id].parent].node->add(std::move(node));
            continue;
        }
        if (!orphans)
            orphans = FileNode::makeFolder("$Forældreløse filer", EntryStatus::orphaned);
        orphans->add(std::move(node));
    }
    if (orphans)
        root.add(std::move(orphans));
}

/// Whether the chain of an entry's parents leads to the root.
bool HFSContext::reaches(std::uint32_t id)
{
    std::vector<std::uint32_t> path;
    bool answer = false;
    while (true) {
        const auto [known, isNew]
            = reaches_.emplace(id, false); // a chain that comes back to itself finds this
        if (!isNew) {
            answer = known->second;
            break;
        }
        path.push_back(id);
        const auto entry = entries_.find(id);
        if (entry == entries_.end())
            break;
        const auto parent = entries_.find(entry->second.parent);
        if (parent == entries_.end() || parent->second.node == nullptr
            || !parent->second.node->isDirectory())
            break;
        id = entry->second.parent;
    }
    for (const auto visited : path)
        reaches_[visited] = answer;
    return answer;
}

std::unique_ptr<FileNode> HFSContext::makeNode(std::uint32_t id, const CatalogEntry& entry) const
{
    auto name = nameOf(entry);
    if (name.empty())
        name = "unavngivet-" + std::to_string(id);
    const auto status = entry.isLive ? EntryStatus::existing : EntryStatus::deleted;
    auto node = entry.isFolder ? FileNode::makeFolder(std::move(name), status)
                               : FileNode::makeFile(std::move(name), 0, status);
    const auto data = dataOf(entry);
    node->created = TimeConversion::fromHFS(data.u32be(offsetof(CatalogItem, created)));
    node->modified = TimeConversion::fromHFS(data.u32be(offsetof(CatalogItem, modified)));
    node->fsID = id;
    if (!entry.isFolder)
        fill(*node, id, entry);
    return node;
}

void HFSContext::fill(FileNode& node, std::uint32_t id, const CatalogEntry& entry) const
{
    auto file = *dataOf(entry).load<CatalogFile>(0); // whole: shorter records are not kept
    if (isHardLink(file)) {
        const auto target = inodes_.find(file.item.special);
        if (target == inodes_.end()) {
            node.recoverability = Recoverability::poor;
            node.addNote("Filen, som linket peger på, blev ikke fundet");
            return;
        }
        id = target->second;
        file = *dataOf(entries_.at(id)).load<CatalogFile>(0);
    }
    const std::uint64_t size = file.dataFork.logicalSize;
    node.size = size;
    if ((file.item.ownerFlags & compressedFlag) != 0) {
        node.data = ExtentList {};
        node.recoverability = Recoverability::poor;
        node.addNote("HFS-komprimeret fil – indholdet ligger i en skjult ressource og kan ikke "
                     "gendannes direkte");
        return;
    }
    if (size == 0 && file.resourceFork.logicalSize != 0)
        node.addNote("Filen har kun en ressourcegren, som ikke gendannes");

    // The extents overflow file describes a deleted file's later pieces no longer.
    const auto runs = entry.isLive ? allRuns(file.dataFork, id) : inlineRuns(file.dataFork);
    ExtentList extents;
    bool isIncomplete = false;
    std::uint64_t remaining = size;
    for (const auto& run : runs) {
        if (remaining == 0)
            break;
        const std::uint64_t length = std::min(remaining, run.count * blockSize_);
        const auto offset = offsetOf(run.start);
        extents.push_back({ offset, length });
        remaining -= length;
        isIncomplete
            = isIncomplete || (entry.isLive && (!offset || length > source_.size() - *offset));
    }
    if (remaining > 0) {
        extents.push_back({ std::nullopt, remaining });
        isIncomplete = true;
    }
    node.data = std::move(extents);
    if (entry.isLive) {
        node.recoverability = isIncomplete ? Recoverability::partial : Recoverability::good;
    } else if (isIncomplete) {
        node.recoverability = Recoverability::partial;
        node.addNote("Filen var fragmenteret – kun de første dele kendes");
    } else {
        estimateDeleted(node, runs);
    }
}

/// The chance of a deleted file whose every block is known, by the allocation bitmap.
void HFSContext::estimateDeleted(FileNode& node, const Runs& runs) const
{
    std::uint64_t needed
        = std::min(node.size / blockSize_ + (node.size % blockSize_ != 0), maxBlockChecks);
    bool isFirstReused = false;
    bool isReused = false;
    bool isFirst = true;
    for (const auto& run : runs) {
        for (std::uint64_t block = run.start; block - run.start < run.count && needed > 0;
             ++block, --needed) {
            isReused = isReused || isAllocated(block);
            isFirstReused = isFirstReused || (isFirst && isReused);
            isFirst = false;
        }
    }
    if (allocation_.empty())
        node.recoverability = Recoverability::unknown;
    else
        node.judgeByReuse(isFirstReused, isReused);
}
