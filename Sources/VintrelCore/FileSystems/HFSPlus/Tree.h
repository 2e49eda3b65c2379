#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

/// Makes the tree of files from a catalog, with the chance of each. Neither the forks nor the
/// catalog may die before it. Used by one thread at a time.
class HFSPlusFileTree {
public:
    HFSPlusFileTree(const HFSPlusForks& forks, const HFSPlusCatalog& catalog);

    /// Hangs every file and folder of the catalog below `root`. Those that the root does not reach
    /// come side by side into a folder of their own.
    void build(FileNode& root) const;

private:
    using Entry = HFSPlusCatalog::Entry;

    void indexHardLinks();
    std::vector<std::unique_ptr<FileNode>> makeNodes() const;
    void noteContested(const std::vector<std::unique_ptr<FileNode>>& nodes) const;
    ParentLinks linksBetween(const std::vector<FileNode*>& folders) const;
    std::unique_ptr<FileNode> makeNode(const Entry& entry) const;
    void fill(FileNode& node, const Entry& entry) const;
    void fillExtents(
        FileNode& node, const HFSPlusFormat::ForkData& fork, std::uint32_t id, bool isLive) const;
    void judgeDeleted(FileNode& node, const HFSPlusExtents& stored) const;

    const HFSPlusForks& forks_;
    const HFSPlusCatalog& catalog_;
    std::unordered_map<std::uint32_t, const Entry*>
        linkedFiles_; // what hard links stand for, by the number in its name
};
