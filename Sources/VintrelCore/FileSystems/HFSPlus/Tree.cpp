#include "VintrelCore/FileSystems/HFSPlus/Tree.h"

#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/DeletedClaims.h"
#include "VintrelCore/Model/FileData.h"

#include <optional>
#include <set>
#include <string>

using namespace HFSPlusFormat;

namespace {

/// Folders whose name begins so are the file system's own and not the user's.
bool isPrivate(std::string_view name) { return name.starts_with('\0'); }

/// The number in the name of what hard links stand for: "iNode17" for a file, "dir_17" for a
/// folder.
std::optional<std::uint32_t> numberIn(std::string_view name, std::string_view prefix)
{
    return name.starts_with(prefix) ? Text::number<std::uint32_t>(name.substr(prefix.size()))
                                    : std::nullopt;
}

/// Where the folders lie that hard links stand for; a user sees its name nowhere.
constexpr std::string_view linkedFoldersFolder = ".HFS+ Private Directory Data\r";

/// What hard links to files may have of extents, all together. A file in many pieces costs them
/// once for each of its links.
constexpr std::size_t maxSharedExtents = 8'388'608;

bool isFolderLink(const CatalogFile& file)
{
    return file.fileType == folderLinkType && file.fileCreator == folderLinkCreator;
}

bool isHardLink(const CatalogFile& file)
{
    return file.fileType == hardLinkType && file.fileCreator == hardLinkCreator
        && file.dataFork.logicalSize == 0;
}

} // namespace

HFSPlusFileTree::HFSPlusFileTree(
    const HFSPlusForks& forks, const HFSPlusCatalog& catalog, const HFSPlusAttributes& attributes)
    : forks_(forks)
    , catalog_(catalog)
    , content_(forks, attributes)
{
    indexHardLinks();
    indexFolderLinks();
}

void HFSPlusFileTree::indexHardLinks()
{
    for (const auto& entry : catalog_.entries()) {
        const auto* parent = catalog_.find(entry.parent);
        if (entry.isFolder || parent == nullptr || !isPrivate(catalog_.nameOf(*parent)))
            continue;
        if (const auto number = numberIn(catalog_.nameOf(entry), "iNode"))
            if (auto& known = linkedFiles_[*number]; known == nullptr || entry.isLive())
                known = &entry;
    }
}

/// Finds for every folder that hard links stand for the first link that exists.
void HFSPlusFileTree::indexFolderLinks()
{
    std::unordered_map<std::uint32_t, std::uint32_t> folders; // IDs by the number in their names
    for (const auto& entry : catalog_.entries()) {
        const auto* parent = entry.isFolder ? catalog_.find(entry.parent) : nullptr;
        if (parent != nullptr && catalog_.nameOf(*parent) == linkedFoldersFolder)
            if (const auto number = numberIn(catalog_.nameOf(entry), "dir_"))
                folders.emplace(*number, entry.id);
    }
    for (const auto& entry : catalog_.entries()) {
        const auto file = catalog_.fileOf(entry);
        if (entry.isFolder || !entry.isLive() || !isFolderLink(file))
            continue;
        ++folderLinkCount_;
        if (const auto folder = folders.find(file.item.special); folder != folders.end())
            firstLinks_.emplace(folder->second, &entry);
    }
}

/// What a hard link to a file stands for; none when it is not there.
const HFSPlusCatalog::Entry* HFSPlusFileTree::linkedFile(const Entry& entry) const
{
    const auto linked = linkedFiles_.find(catalog_.itemOf(entry).special);
    return linked != linkedFiles_.end() ? linked->second : nullptr;
}

/// The folder in which an entry is listed.
std::uint32_t HFSPlusFileTree::parentOf(const Entry& entry) const
{
    const auto link = firstLinks_.find(entry.id);
    return link != firstLinks_.end() ? link->second->parent : entry.parent;
}

void HFSPlusFileTree::build(FileNode& root)
{
    auto nodes = makeNodes();
    if (forks_.hasAllocation())
        noteContested(nodes);
    std::vector<FileNode*> all;     // by entry
    std::vector<FileNode*> folders; // the same; none for what cannot hold others
    for (const auto& node : nodes) {
        all.push_back(node.get());
        folders.push_back(node && node->isDirectory() ? node.get() : nullptr);
    }
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
    noteLinksOf(all);
}

/// Notes on the files that hard links stand for, which have no folder of their own.
void HFSPlusFileTree::noteLinksOf(const std::vector<FileNode*>& nodes) const
{
    const auto& entries = catalog_.entries();
    std::vector<bool> isNoted(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (nodes[i] == nullptr || entries[i].isFolder || !isHardLink(catalog_.fileOf(entries[i])))
            continue;
        const auto* linked = linkedFile(entries[i]);
        if (linked == nullptr)
            continue;
        const auto index = static_cast<std::size_t>(linked - entries.data());
        if (nodes[index] != nullptr && !isNoted[index])
            nodes[index]->addNote("Hårdt link til filen: " + Unicode::escaped(nodes[i]->path()));
        isNoted[index] = true;
    }
}

/// Folders come before the entries in them as far as they hang together.
void HFSPlusFileTree::addLoose(FileNode& root, FileNode& orphans)
{
    std::unordered_map<std::uint64_t, FileNode*> known { { rootFolderID, &root } };
    root.forEachDescendant([&](FileNode& node, std::size_t) {
        if (node.isDirectory() && node.fsID != 0)
            known.emplace(node.fsID, &node);
    });
    const auto& entries = catalog_.looseEntries();
    std::unordered_map<std::uint32_t, ParentLinks::Index> folders;
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i].isFolder)
            folders.emplace(entries[i].id, i);
    std::vector<ParentLinks::Index> parents;
    for (const auto& entry : entries) {
        const auto folder = folders.find(entry.parent);
        parents.push_back(known.contains(entry.parent) ? ParentLinks::root
                : folder != folders.end()              ? folder->second
                                                       : ParentLinks::none);
    }
    const ParentLinks links(std::move(parents));
    Nodes nodes;
    std::vector<FileNode*> places;
    for (const auto& entry : entries) {
        nodes.push_back(makeNode(entry));
        places.push_back(nodes.back().get());
    }
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const auto parent = links.parentOf(i);
        FileNode& folder = parent == ParentLinks::root ? *known.at(entries[i].parent)
            : parent == ParentLinks::none              ? orphans
                                                       : *places[parent];
        folder.add(std::move(nodes[i]));
    }
}

/// The nodes of all entries; none for the root, which has one already, and for what is not listed.
HFSPlusFileTree::Nodes HFSPlusFileTree::makeNodes()
{
    std::set<const Entry*> replaced; // links at whose place the folder itself is listed
    for (const auto& [folder, link] : firstLinks_)
        replaced.insert(link);
    Nodes nodes;
    nodes.reserve(catalog_.entries().size());
    for (const auto& entry : catalog_.entries()) {
        const bool isListed = entry.id != rootFolderID && !replaced.contains(&entry);
        auto node = isListed ? makeNode(entry) : nullptr;
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
        const auto* extents = extentsOf(nodes[i]->data);
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
    const auto indexOfParent = [&](const Entry& entry) {
        const auto id = parentOf(entry);
        if (id == rootFolderID)
            return ParentLinks::root;
        const auto* parent = catalog_.find(id);
        if (parent == nullptr)
            return ParentLinks::none;
        const auto index = static_cast<ParentLinks::Index>(parent - entries.data());
        return folders[index] != nullptr ? index : ParentLinks::none;
    };
    std::vector<ParentLinks::Index> parents;
    parents.reserve(entries.size());
    for (const auto& entry : entries)
        parents.push_back(indexOfParent(entry));
    return ParentLinks(std::move(parents));
}

std::unique_ptr<FileNode> HFSPlusFileTree::makeNode(const Entry& entry)
{
    const auto link = firstLinks_.find(entry.id);
    auto name = catalog_.nameOf(link != firstLinks_.end() ? *link->second : entry);
    if (name.empty())
        name = "unavngivet-" + std::to_string(entry.id);
    const auto status = entry.isLive() ? EntryStatus::existing : EntryStatus::deleted;
    auto node = entry.isFolder ? FileNode::makeFolder(std::move(name), status)
                               : FileNode::makeFile(std::move(name), 0, status);
    const auto item = catalog_.itemOf(entry);
    node->created = TimeConversion::fromHFS(item.created);
    node->modified = TimeConversion::fromHFS(item.modified);
    node->fsID = entry.id;
    if (entry.isFolder)
        content_.attachAttributes(
            *node, catalog_.finderInfoOf(entry), { entry.id, entry.isLive() });
    else
        fill(*node, entry);
    return node;
}

void HFSPlusFileTree::fill(FileNode& node, const Entry& entry)
{
    const bool isLink = isHardLink(catalog_.fileOf(entry));
    const auto* listed = isLink ? linkedFile(entry) : &entry;
    if (listed == nullptr) {
        judge(node, Doubt::missingLinkedFile);
        return;
    }
    const auto file = catalog_.fileOf(*listed);
    if (isLink) {
        node.created = TimeConversion::fromHFS(file.item.created);
        node.modified = TimeConversion::fromHFS(file.item.modified);
    }
    // The content outlives a link that was deleted.
    const HFSPlusContent::Owner owner { listed->id, listed->isLive() };
    content_.fill(node, file, owner);
    if (isFolderLink(file)) {
        node.addNote("Hårdt link til en mappe, som vises ved det første af sine links");
        return;
    }
    if (isLink && isTooMuchShared(node)) {
        node.data = NoData {};
        judgeFurther(node, Doubt::sharedContent);
    }
    content_.attachFork(node, file, owner);
    content_.attachAttributes(node, catalog_.finderInfoOf(*listed), owner);
}

bool HFSPlusFileTree::isTooMuchShared(const FileNode& node)
{
    const auto* extents = extentsOf(node.data);
    sharedExtents_ += extents != nullptr ? extents->size() : 0;
    return sharedExtents_ > maxSharedExtents;
}
