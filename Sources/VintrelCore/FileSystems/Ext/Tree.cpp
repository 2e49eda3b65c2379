#include "VintrelCore/FileSystems/Ext/Tree.h"

#include "VintrelCore/Model/Chance.h"

#include <utility>

using namespace ExtFormat;

namespace {

using Index = ExtEntry::Index;

/// The pieces that all hard links together repeat. More come from made-up disks.
constexpr std::size_t maxSharedPieces = 4'194'304;

bool isRoot(const ExtEntry& entry) { return entry.number == rootInode && entry.isAlive(); }

/// Whether there is nothing to show of it: the traces of a file alone.
bool isEmpty(const ExtEntry& entry, const std::vector<bool>& isFolderOfSome, Index index)
{
    if (entry.isAlive() || entry.isNamed())
        return false;
    return entry.node->isDirectory() ? !isFolderOfSome[index] : entry.node->size == 0;
}

ParentLinks linksOf(const ExtFiles& files)
{
    std::vector<Index> parents;
    parents.reserve(files.entries.size());
    for (const auto& entry : files.entries) {
        const bool isBelowRoot
            = entry.parent < files.entries.size() && isRoot(files.entries[entry.parent]);
        parents.push_back(isRoot(entry) ? ParentLinks::system
                : isBelowRoot           ? ParentLinks::root
                                        : entry.parent);
    }
    return ParentLinks(std::move(parents));
}

std::unique_ptr<FileNode> copyOf(const FileNode& node, const std::string& name, std::size_t& pieces)
{
    auto copy = FileNode::makeFile(name, node.size, node.status, node.recoverability);
    copy->created = node.created;
    copy->modified = node.modified;
    copy->fsID = node.fsID;
    copy->note = node.note;
    const auto* const extents = extentsOf(node.data);
    pieces += extents != nullptr ? extents->size() : 1;
    if (pieces <= maxSharedPieces)
        copy->data = node.data;
    else
        judge(*copy, Doubt::sharedContent);
    return copy;
}

} // namespace

void ExtTree::build(ExtFiles files, const std::vector<ExtHardLink>& hardLinks, FileNode& root)
{
    auto& entries = files.entries;
    const auto links = linksOf(files);
    std::vector<bool> isFolderOfSome(entries.size());
    for (Index index = 0; index < entries.size(); ++index)
        if (entries[index].isNamed() || entries[index].node->size > 0)
            for (auto up = links.parentOf(index); up < entries.size() && !isFolderOfSome[up];
                 up = links.parentOf(up))
                isFolderOfSome[up] = true;

    std::vector<FileNode*> nodes(entries.size());
    for (Index index = 0; index < entries.size(); ++index)
        nodes[index] = entries[index].node.get();
    auto orphans = FileNode::makeFolder("$Forældreløse filer", EntryStatus::orphaned);
    const auto folderFor = [&](Index parent) {
        return parent == ParentLinks::root ? &root
            : parent < nodes.size()        ? nodes[parent]
                                           : orphans.get();
    };
    std::size_t sharedPieces = 0;
    for (const auto& link : hardLinks) {
        const bool isBelowRoot = isRoot(entries[link.parent]);
        auto* const folder = isBelowRoot ? &root : nodes[link.parent];
        folder->add(copyOf(*nodes[link.file], link.name, sharedPieces));
    }
    for (Index index = 0; index < entries.size(); ++index) {
        auto& entry = entries[index];
        if (isRoot(entry) || isEmpty(entry, isFolderOfSome, index))
            continue;
        if (!entry.isNamed())
            entry.node->name = "inode-" + std::to_string(entry.number);
        const auto parent = links.parentOf(index);
        if (parent == ParentLinks::none && entry.isAlive())
            entry.node->status = EntryStatus::orphaned;
        folderFor(parent)->add(std::move(entry.node));
    }
    if (!orphans->children().empty())
        root.add(std::move(orphans));
    root.sortChildren();
}
