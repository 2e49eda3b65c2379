#pragma once

#include "Tests/Images/DiskImage.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// A volume of ext4 with one group, blocks of 1 KiB, checksums and a journal. What lies where is
/// fixed, so that tests can damage it.
class ExtImage : public DiskImage {
public:
    static constexpr std::uint64_t blockSize = 1024;
    static constexpr std::uint64_t blockCount = 1024;
    static constexpr std::uint64_t bitmapBlock = 3, tableBlock = 5, rootBlock = 21;
    static constexpr std::uint64_t journalBlock = 32, journalBlocks = 64, firstFree = 100;
    static constexpr std::uint32_t inodeCount = 64, inodeSize = 256;
    static constexpr std::uint32_t root = 2;

    ExtImage();

    struct Piece {
        std::uint32_t logical = 0;
        std::uint64_t block = 0;
        std::uint16_t count = 0;
    };
    struct Inode {
        std::uint16_t mode = 0x81A4; ///< a file
        std::uint64_t size = 0;
        std::uint16_t links = 1;
        std::uint32_t deleted = 0;
        std::uint32_t created = 0;
        std::uint32_t generation = 7;
        std::vector<Piece> extents {};
        std::uint64_t node = 0; ///< a block of its extent tree that has the extents; 0: the inode
        bool hasLists = false;  ///< the extents are direct blocks
    };

    void putInode(std::uint32_t number, const Inode& inode);
    /// The entries of a directory that has this one block. "." and ".." come by themselves.
    void putFolder(std::uint32_t number, std::uint32_t parent, std::uint64_t block,
        const std::vector<std::pair<std::uint32_t, std::string>>& entries);
    /// A file in one piece.
    void putFile(std::uint32_t number, std::uint64_t block, std::string_view content);
    void removeInode(std::uint32_t number, std::uint32_t generation = 7);
    /// A node of an extent tree by itself, with the checksum that it has for this inode. Where
    /// `depth` is not 0, the pieces are nodes.
    void putNode(std::uint64_t block, std::uint32_t number, std::uint32_t generation,
        const std::vector<Piece>& pieces, std::uint16_t depth = 0);
    /// The number with which the superblock's list of orphans begins.
    void putFirstOrphan(std::uint32_t number);
    /// The orphan file, in one block.
    void putOrphanFile(std::uint32_t number, std::uint64_t block, std::uint32_t orphan);
    void setUsed(std::uint64_t block, std::uint64_t count, bool isUsed);

    /// Gives the journal checksums of version 1, for the transactions from now on.
    void useOldJournal();
    /// Leaves the journal's last blocks to fast commits, and lets the log begin shortly before.
    void useFastCommits(std::uint64_t blocks);
    /// What a fast commit says of one thing: the kind of change, and what follows on that.
    struct Change {
        std::uint16_t kind = 0;
        Bytes value;
    };
    /// A folder gets a name (3) or loses it (5).
    static Change name(
        std::uint16_t kind, std::uint32_t folder, std::uint32_t number, std::string_view text);
    /// An inode gets the state that it has now, and a file the blocks.
    Change inode(std::uint32_t number) const;
    static Change blocks(std::uint32_t number, const Piece& piece);
    /// The next fast commit, before the transaction with this number.
    void putFastCommit(std::uint32_t sequence, const std::vector<Change>& changes);
    /// The block of the volume with this block of the log.
    std::uint64_t logBlock(std::uint64_t index) const;
    /// A transaction with the states that these blocks have now.
    void commit(
        const std::vector<std::uint64_t>& blocks, const std::vector<std::uint64_t>& revoked = {});
    /// Says that the transactions from the first one on were not written to their places.
    void demandReplay();

    static std::uint64_t offsetOf(std::uint64_t block) { return block * blockSize; }
    static std::uint64_t tableBlockOf(std::uint32_t number)
    {
        return tableBlock + (number - 1) * inodeSize / blockSize;
    }
    /// Makes the checksums fit again, after damage.
    void renewChecksums();

private:
    std::uint64_t slotOf(std::uint32_t number) const
    {
        return offsetOf(tableBlock) + std::uint64_t { number - 1 } * inodeSize;
    }
    std::uint32_t seedOf(std::uint32_t number) const;
    std::uint32_t sum(std::uint32_t state, std::uint64_t from, std::uint64_t count) const;
    void sumInode(std::uint32_t number);
    void putTree(
        std::uint64_t at, std::size_t room, const std::vector<Piece>& pieces, std::uint16_t depth);
    void putHeader(std::uint64_t block, std::uint32_t type);
    void sumTail(std::uint64_t block);

    std::uint32_t seed_ = 0;
    std::uint32_t journalSeed_ = 0;
    bool hasOldJournal_ = false;
    std::uint32_t sequence_ = 1;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> fastCommits_; ///< from there to the sum
    std::uint64_t logStart_ = 1, logEnd_ = journalBlocks,
                  logLength_ = 0;                    ///< in blocks of the journal
    std::map<std::uint64_t, std::uint32_t> folders_; ///< numbers, by their blocks
    std::map<std::uint64_t, std::uint32_t> nodes_;   ///< the same of nodes of extent trees
};
