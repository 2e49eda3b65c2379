#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Content.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

/// Makes the tree of files from a catalog, with the chance of each. None of the three that it is
/// made of may die before it. Used by one thread at a time.
class HFSPlusFileTree {
public:
    HFSPlusFileTree(const HFSPlusForks& forks, const HFSPlusCatalog& catalog,
        const HFSPlusAttributes& attributes);

    /// Hangs every file and folder of the catalog below `root`. Those that the root does not reach
    /// come side by side into a folder of their own.
    void build(FileNode& root);
    /// Hangs the loose entries of the catalog below folders that `root` has already; those whose
    /// folders are not there go into `orphans`.
    void addLoose(FileNode& root, FileNode& orphans);

    /// How many hard links to folders there are.
    std::size_t folderLinkCount() const { return folderLinkCount_; }
    /// Whether extended attributes were left out because there were too many.
    bool lacksAttributes() const { return content_.isFull(); }

private:
    using Entry = HFSPlusCatalog::Entry;

    using Nodes = std::vector<std::unique_ptr<FileNode>>;

    void indexHardLinks();
    void indexFolderLinks();
    const Entry* linkedFile(const Entry& entry) const;
    std::uint32_t parentOf(const Entry& entry) const;
    Nodes makeNodes();
    void noteLinksOf(const std::vector<FileNode*>& nodes) const;
    void noteContested(const std::vector<std::unique_ptr<FileNode>>& nodes) const;
    ParentLinks linksBetween(const std::vector<FileNode*>& folders) const;
    std::unique_ptr<FileNode> makeNode(const Entry& entry);
    void fill(FileNode& node, const Entry& entry);
    bool isTooMuchShared(const FileNode& node);

    const HFSPlusForks& forks_;
    const HFSPlusCatalog& catalog_;
    HFSPlusContent content_;
    std::unordered_map<std::uint32_t, const Entry*>
        linkedFiles_; // what hard links stand for, by the number in its name
    std::unordered_map<std::uint32_t, const Entry*>
        firstLinks_; // by the ID of a folder: the first hard link to it, where it is listed
    std::size_t folderLinkCount_ = 0;
    std::size_t sharedExtents_ = 0; // of the hard links so far
};
