#pragma once

#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/Content.h"
#include "VintrelCore/FileSystems/APFS/LeafLedger.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// The files that a volume lists as existing, by their numbers: what a snapshot has in common with
/// them is not listed again. The volume must outlive it.
class APFSSameFiles {
public:
    explicit APFSSameFiles(const FileNode& root);

    /// Whether one of them has the number, size and content of this one.
    bool contains(const FileNode& file) const;

private:
    std::unordered_map<std::uint64_t, const FileNode*> files_;
};

/// Hangs files and folders on the tree of a volume: first those that exist, then deleted ones, each
/// object once. Used by one thread at a time.
class APFSFileTree {
public:
    /// `known`: takes the objects that are listed. None of the three may die before the tree.
    APFSFileTree(APFSContainerState& state, APFSKnownObjects& known, FileNode& root);

    /// Adds the newest state of the tree: what exists or, of a deleted volume, what existed last.
    /// To be called once, and first.
    void addTree(const APFSFileRecords& live, EntryStatus status);
    /// Adds the files of a snapshot that are others than the living ones, with their folders.
    void addDifferent(const APFSFileRecords& records, const APFSSameFiles& living);
    /// Adds what older states of the tree list, and what exists lacks: its number, and in its
    /// folder a thing of its name or, of a file, of its name and blocks.
    void addDeleted(const APFSFileRecords& old, const APFSFileRecords& live);
    /// Adds files and folders that are not known yet to `orphans`, below copies of their folders
    /// where these are known.
    void addLost(const APFSFileRecords& lost, FileNode& orphans);

    /// The folder for what has no other; none when there is none yet.
    FileNode* orphans() const;

    static constexpr std::string_view orphansName = "$Forældreløse filer";

    /// A stored name, in which only what is no UTF-8 is replaced.
    static std::string displayed(std::string_view stored);

private:
    using Inode = APFSFileRecords::Inode;
    using Link = APFSFileRecords::Link;

    /// A node that waits for its folder.
    struct NewNode {
        std::uint64_t id = 0;
        std::uint64_t parent = 0; ///< by number
        std::unique_ptr<FileNode> node;
    };

    /// Whether records may be older than others that belong to them.
    enum class States { one, several };

    template <class Visit> static void forEachObject(const APFSFileRecords& records, Visit visit);
    static std::vector<Link> namesOf(const APFSFileRecords& records, const Inode* inode,
        std::span<const Link> links, States states);
    std::unique_ptr<FileNode> makeNode(const APFSFileRecords& records, const APFSFileRecords* live,
        const Inode* inode, const Link& link, EntryStatus status);
    std::vector<NewNode> makeTree(const APFSFileRecords& records, EntryStatus status);
    static bool hasOtherBlocks(const APFSFileRecords& old, const Inode& inode,
        const APFSFileRecords& live, std::uint64_t liveID);
    void addInUse(const APFSFileRecords& live);
    void addFolder(std::uint64_t id, FileNode& node) { folders_.emplace(id, &node); }
    ParentLinks linksBetween(const std::vector<NewNode>& added) const;
    void hang(std::vector<NewNode> added);
    void hangBelow(FileNode& orphans, std::vector<NewNode> added);
    FileNode& copyIn(FileNode& orphans, FileNode& folder,
        std::unordered_map<FileNode*, FileNode*>& copies) const;

    APFSContainerState& state_;
    APFSContent content_;
    APFSKnownObjects& known_;
    FileNode& root_;
    // By number. A folder that was made anew has the numbers of those before it too.
    std::unordered_map<std::uint64_t, FileNode*> folders_;
};
