#pragma once

#include "VintrelCore/FileSystems/Ext/Allocation.h"
#include "VintrelCore/FileSystems/Ext/Blocks.h"
#include "VintrelCore/FileSystems/Ext/FastCommits.h"
#include "VintrelCore/FileSystems/Ext/Groups.h"
#include "VintrelCore/FileSystems/Ext/Journal.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <memory>
#include <string>
#include <vector>

class DiskSource;

/// How far the structures of a volume are still its own.
enum class ExtTrust : std::uint8_t {
    full,
    onlySound,  ///< others may have written over them: what has a wrong checksum is not its own
    onlyInodes, ///< the same, and its superblock, descriptors and journal are another's
};

/// What is left of a volume that another one was made over.
struct ExtRemains {
    ExtGeometry geometry;
    std::vector<std::uint64_t> tables; ///< first blocks of the inode tables, by group; 0: not known
    std::vector<ByteRange> journal;    ///< on the source, in its order; empty: not known
};

/// A volume whose journal has been searched and replayed, and whose groups are known. Used by one
/// thread at a time.
class ExtContext : public DeepContext {
public:
    /// `geometry`: by any superblock of the volume. `progress` may be none. The source must outlive
    /// the context.
    ExtContext(
        DiskSource& source, const ExtGeometry& geometry, ExtTrust trust, WorkProgress* progress);

    /// One that another was made over.
    ExtContext(DiskSource& source, const ExtRemains& remains, WorkProgress* progress);

    ExtTrust trust() const { return trust_; }

    const ExtGeometry& geometry() const { return blocks_.geometry(); }
    const ExtBlocks& blocks() const { return blocks_; }
    const ExtGroups& groups() const { return *groups_; }
    ExtAllocation& allocation() { return *allocation_; }
    /// None when the volume has none, or it cannot be read.
    const ExtJournal* journal() const { return journal_.get(); }
    /// What is newer than all that the journal's transactions have.
    const ExtFastCommits& fastCommits() const { return fastCommits_; }
    /// Whether the volume's journal has this byte of the source.
    bool isInJournal(std::uint64_t offset) const;
    /// What there is to say of all this, for the user.
    std::vector<std::string> notes() const;
    /// A file, by what the checksums of its inode's own blocks begin with.
    struct SeededFile {
        std::uint32_t seed = 0;
        const FileNode* file = nullptr;
    };
    /// Keeps the files of a volume with checksums that have names; each must live as long as the
    /// context.
    void keepFiles(std::vector<SeededFile> files);
    /// The file that has a seed; none where none has it, or several.
    const FileNode* fileWith(std::uint32_t seed) const;
    /// Lets go of what only the reading of files needs.
    void forgetJournal() { journal_.reset(); }

private:
    std::vector<ByteRange> findJournal() const;
    void readJournal(WorkProgress* progress);
    void applyFastCommits();
    void applyInode(const ExtFastCommits::Inode& inode);

    ExtBlocks blocks_;
    const ExtTrust trust_;
    std::vector<ByteRange> journalPlace_;
    std::unique_ptr<ExtJournal> journal_;
    std::size_t replayedBlocks_ = 0;
    bool lacksJournal_ = false;
    ExtFastCommits fastCommits_;
    bool hasUnreadTrees_ = false;
    /// Of tables that fast commits change, in memory. They are made for few files at a time.
    std::uint64_t patchBytesLeft_ = 67'108'864;
    std::unique_ptr<ExtGroups> groups_;
    std::unique_ptr<ExtAllocation> allocation_;
    std::vector<SeededFile> files_; ///< by their seeds
};
