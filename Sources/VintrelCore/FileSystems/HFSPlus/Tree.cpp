#include "VintrelCore/FileSystems/HFSPlus/Tree.h"

#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/DeletedClaims.h"
#include "VintrelCore/Model/FileData.h"

#include <optional>
#include <string>

using namespace HFSPlusFormat;

namespace {

/// Folders whose name begins so are the file system's own and not the user's.
bool isPrivate(std::string_view name) { return name.starts_with('\0'); }

/// The number in the name of a file that hard links stand for: "iNode17".
std::optional<std::uint32_t> inodeNumber(std::string_view name)
{
    constexpr std::string_view prefix = "iNode";
    return name.starts_with(prefix) ? Text::number<std::uint32_t>(name.substr(prefix.size()))
                                    : std::nullopt;
}

bool isHardLink(const CatalogFile& file)
{
    return file.fileType == hardLinkType && file.fileCreator == hardLinkCreator
        && file.dataFork.logicalSize == 0;
}

} // namespace

HFSPlusFileTree::HFSPlusFileTree(const HFSPlusForks& forks, const HFSPlusCatalog& catalog)
    : forks_(forks)
    , catalog_(catalog)
{
    indexHardLinks();
}

void HFSPlusFileTree::indexHardLinks()
{
    for (const auto& entry : catalog_.entries()) {
        const auto* parent = catalog_.find(entry.parent);
        if (entry.isFolder || parent == nullptr || !isPrivate(catalog_.nameOf(*parent)))
            continue;
        if (const auto number = inodeNumber(catalog_.nameOf(entry)))
            if (auto& known = linkedFiles_[*number]; known == nullptr || entry.isLive())
                known = &entry;
    }
}

void HFSPlusFileTree::build(FileNode& root) const
{
    auto nodes = makeNodes();
    if (forks_.hasAllocation())
        noteContested(nodes);
    std::vector<FileNode*> folders; // by entry; none for what cannot hold others
    folders.reserve(nodes.size());
    for (const auto& node : nodes)
        folders.push_back(node && node->isDirectory() ? node.get() : nullptr);
    const auto links = linksBetween(folders);
    std::unique_ptr<FileNode> orphans;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (!nodes[i])
            continue;
        if (links.placeOf(i) == ParentLinks::Place::inTree) {
            const auto parent = links.parentOf(i);
            (parent == ParentLinks::root ? root : *folders[parent]).add(std::move(nodes[i]));
            continue;
        }
        if (!orphans)
            orphans = FileNode::makeFolder("$Forældreløse filer", EntryStatus::orphaned);
        orphans->add(std::move(nodes[i]));
    }
    if (orphans)
        root.add(std::move(orphans));
}

/// The nodes of all entries; none for the root, which has one already, and for what is not listed.
std::vector<std::unique_ptr<FileNode>> HFSPlusFileTree::makeNodes() const
{
    std::vector<std::unique_ptr<FileNode>> nodes;
    nodes.reserve(catalog_.entries().size());
    for (const auto& entry : catalog_.entries()) {
        auto node = entry.id != rootFolderID ? makeNode(entry) : nullptr;
        if (node && isPrivate(node->name))
            node.reset();
        nodes.push_back(std::move(node));
    }
    return nodes;
}

/// Notes on deleted files that others had the same blocks later, by the dates of their content.
/// `nodes`: of all entries. The allocation file alone sets the levels.
void HFSPlusFileTree::noteContested(const std::vector<std::unique_ptr<FileNode>>& nodes) const
{
    DeletedClaims claims(DeletedClaims::SameTime::undecided);
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const auto& entry = catalog_.entries()[i];
        if (!nodes[i] || entry.isLive() || isHardLink(catalog_.fileOf(entry)))
            continue;
        const auto* extents = std::get_if<ExtentList>(&nodes[i]->data);
        bool isStart = true;
        for (const auto& extent : extents != nullptr ? *extents : ExtentList {}) {
            if (extent.offset)
                claims.add({ nodes[i].get(), { *extent.offset, *extent.offset + extent.length },
                    entry.modified, isStart });
            isStart = false;
        }
    }
    claims.forEachDoubted([](FileNode& file, Doubts doubts) {
        if (file.recoverability != Recoverability::poor)
            noteDoubts(file, doubts);
    });
}

/// How the entries hang together. `folders`: the nodes of those that are listed folders.
ParentLinks HFSPlusFileTree::linksBetween(const std::vector<FileNode*>& folders) const
{
    const auto& entries = catalog_.entries();
    const auto parentOf = [&](const Entry& entry) {
        if (entry.parent == rootFolderID)
            return ParentLinks::root;
        const auto* parent = catalog_.find(entry.parent);
        if (parent == nullptr)
            return ParentLinks::none;
        const auto index = static_cast<ParentLinks::Index>(parent - entries.data());
        return folders[index] != nullptr ? index : ParentLinks::none;
    };
    std::vector<ParentLinks::Index> parents;
    parents.reserve(entries.size());
    for (const auto& entry : entries)
        parents.push_back(parentOf(entry));
    return ParentLinks(std::move(parents));
}

std::unique_ptr<FileNode> HFSPlusFileTree::makeNode(const Entry& entry) const
{
    auto name = catalog_.nameOf(entry);
    if (name.empty())
        name = "unavngivet-" + std::to_string(entry.id);
    const auto status = entry.isLive() ? EntryStatus::existing : EntryStatus::deleted;
    auto node = entry.isFolder ? FileNode::makeFolder(std::move(name), status)
                               : FileNode::makeFile(std::move(name), 0, status);
    const auto item = catalog_.itemOf(entry);
    node->created = TimeConversion::fromHFS(item.created);
    node->modified = TimeConversion::fromHFS(item.modified);
    node->fsID = entry.id;
    if (!entry.isFolder)
        fill(*node, entry);
    return node;
}

void HFSPlusFileTree::fill(FileNode& node, const Entry& entry) const
{
    auto id = entry.id;
    bool isLive = entry.isLive();
    auto file = catalog_.fileOf(entry);
    if (isHardLink(file)) {
        const auto linked = linkedFiles_.find(file.item.special);
        if (linked == linkedFiles_.end()) {
            judge(node, Doubt::missingLinkedFile);
            return;
        }
        id = linked->second->id;
        isLive = isLive || linked->second->isLive(); // the content outlives a link that was deleted
        file = catalog_.fileOf(*linked->second);
    }
    node.size = file.dataFork.logicalSize;
    if ((file.item.ownerFlags & compressedFlag) != 0) {
        node.data = ExtentList {};
        judge(node, Doubt::compressedByHFS);
        return;
    }
    if (node.size == 0 && file.resourceFork.logicalSize != 0)
        node.addNote("Filen har kun en ressourcegren, som ikke gendannes");
    fillExtents(node, file.dataFork, id, isLive);
}

/// `isLive`: whether the content belongs to a file that exists. The extents overflow file describes
/// a deleted file's later pieces no longer.
void HFSPlusFileTree::fillExtents(
    FileNode& node, const ForkData& fork, std::uint32_t id, bool isLive) const
{
    const auto stored = isLive ? forks_.allExtents(fork, id) : HFSPlusForks::inlineExtents(fork);
    ExtentList extents;
    bool isOnSource = true;
    std::uint64_t remaining = node.size;
    for (const auto& extent : stored) {
        if (remaining == 0)
            break;
        extents.push_back(forks_.pieceOf(extent, remaining));
        remaining -= extents.back().length;
        isOnSource = isOnSource && forks_.isOnSource(extents.back());
    }
    if (remaining > 0)
        extents.push_back({ std::nullopt, remaining });
    node.data = std::move(extents);
    if (isLive)
        judge(node, remaining > 0 || !isOnSource ? Doubts(Doubt::missingExtents) : Doubts());
    else if (remaining > 0)
        judge(node, Doubt::missingLaterExtents);
    else
        judgeDeleted(node, stored);
}

/// Without any of the allocation file the volume's note says why nothing is known.
void HFSPlusFileTree::judgeDeleted(FileNode& node, const HFSPlusExtents& stored) const
{
    auto doubts = doubtsOf(forks_.useOf(stored, node.size), appleReuse);
    if (doubts.has(Doubt::unknownAllocation) && forks_.hasAllocation())
        doubts.add(Doubt::unknownReuse);
    judge(node, doubts);
}
