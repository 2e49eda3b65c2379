#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <span>
#include <vector>

/// Gives files their size, their content and their chance. Used by one thread at a time; the state
/// must outlive it.
class APFSContent {
public:
    explicit APFSContent(APFSContainerState& state)
        : state_(state)
    {
    }

    /// Fills in what the records say of a file. `live`: what exists beside a deleted file, which it
    /// may share its extents with; none where that is not asked. The chance of some deleted files
    /// is judged later, and until then their nodes must stay where they are.
    void fill(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
        const APFSFileRecords::Inode& inode);

    /// Attaches extended attributes and the resource fork to a file that was filled in, or to a
    /// folder.
    void attach(
        FileNode& node, const APFSFileRecords& records, const APFSFileRecords::Inode& inode);

private:
    /// A file's extents, up to its size, and what is known of them.
    struct Layout {
        ExtentList extents;
        bool isComplete = true; ///< nothing is missing but the holes of a sparse file
        bool isHeldBySnapshot = true;
        std::vector<APFSBlocks> older {}; ///< what was taken from older records
    };

    void fillSymlink(
        FileNode& node, const APFSFileRecords& records, const APFSFileRecords::Inode& inode);
    void fillCompressed(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
        const APFSFileRecords::Inode& inode);
    Attachment attachmentFor(const APFSFileRecords& records,
        const APFSFileRecords::Attribute& attribute, const APFSFileRecords::Inode& inode);
    /// `owner`: of the extents, the file itself or its resource fork.
    void fillExtents(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
        const APFSFileRecords::Inode& inode, std::uint64_t owner);
    void claim(FileNode& node, std::span<const APFSFileRecords::Extent> stored,
        const APFSFileRecords::Inode& inode);
    Layout layOut(std::span<const APFSFileRecords::Extent> stored, std::uint64_t size,
        const APFSFileRecords::Inode& inode);

    APFSContainerState& state_;
};
