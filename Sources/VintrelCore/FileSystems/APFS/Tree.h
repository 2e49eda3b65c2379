#pragma once

#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

/// Hangs files and folders on the tree of a volume: first those that exist, then deleted ones, each
/// object once.
class APFSFileTree {
public:
    /// Neither may die before this.
    APFSFileTree(APFSContainer& container, FileNode& root);

    /// Adds what exists. To be called once, and first.
    void addExisting(const APFSFileRecords& live);
    /// Adds what older states of the tree list, and what exists lacks: its number, and a thing of
    /// its name in its folder.
    void addDeleted(const APFSFileRecords& old, const APFSFileRecords& live);
    /// Adds files and folders that are not known yet to `orphans`, below copies of their folders
    /// where these are known.
    void addLost(const APFSFileRecords& lost, FileNode& orphans);

    bool isKnown(std::uint64_t id) const { return createdOf(id) != nullptr; }
    /// When a known object was created, as stored; 0 when that is not known. None for one that is
    /// not known.
    const std::uint64_t* createdOf(std::uint64_t id) const;
    /// The folder for what has no other; none when there is none yet.
    FileNode* orphans() const;

    static constexpr std::string_view orphansName = "$Forældreløse filer";

    /// A stored name, in which only what is no UTF-8 is replaced.
    static std::string displayed(std::string_view stored);

private:
    using Inode = APFSFileRecords::Inode;
    using Link = APFSFileRecords::Link;
    using ExtentRecord = APFSFileRecords::Extent;

    struct Known {
        std::uint64_t id = 0;
        std::uint64_t created = 0;
    };

    /// A node that waits for its folder.
    struct Placed {
        std::uint64_t id = 0;
        std::uint64_t parent = 0;
        std::unique_ptr<FileNode> node;
    };

    /// Whether records may be older than others that belong to them.
    enum class States { one, several };

    template <class Visit> static void forEachObject(const APFSFileRecords& records, Visit visit);
    static std::vector<Link> namesOf(const APFSFileRecords& records, const Inode* inode,
        std::span<const Link> links, States states);
    std::unique_ptr<FileNode> makeNode(const APFSFileRecords& records, const APFSFileRecords* live,
        const Inode* inode, const Link& link, EntryStatus status);
    void fill(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
        const Inode& inode);
    void fillExtents(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
        const Inode& inode);
    void remember(std::vector<Known> found);
    void addFolder(std::uint64_t id, FileNode& node) { folders_.emplace(id, &node); }
    void place(std::vector<Placed> placed, FileNode* orphans);
    FileNode& copyIn(FileNode& orphans, FileNode& folder,
        std::unordered_map<FileNode*, FileNode*>& copies) const;

    APFSContainer& container_;
    FileNode& root_;
    std::vector<Known> known_; // ascending
    std::unordered_map<std::uint64_t, FileNode*> folders_;
};
