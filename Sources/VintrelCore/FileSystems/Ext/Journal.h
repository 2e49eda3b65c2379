#pragma once

#include "VintrelCore/FileSystems/Ext/Blocks.h"
#include "VintrelCore/FileSystems/Ext/JournalStructures.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

class DiskSource;

/// The number of a transaction. They rise from the volume's making on.
using ExtSequence = std::uint32_t;

/// A state of a block that the journal keeps.
struct ExtJournalCopy {
    std::uint64_t block = 0; ///< whose state it is, in the volume
    ExtSequence sequence = 0;
    std::uint32_t checksum = 0;
    std::uint64_t offset = 0; ///< where it lies, in bytes on the source
    bool isEscaped = false;
};

/// What the journal of a volume holds. All its blocks are searched, whatever its beginning says of
/// where the log starts: old transactions stay until others take their place. Used by one thread at
/// a time.
class ExtJournal {
public:
    /// `pieces`: where the journal lies on the source, in its order. `progress` may be none. The
    /// source must outlive the journal.
    ExtJournal(DiskSource& source, const ExtGeometry& geometry, std::vector<ByteRange> pieces,
        WorkProgress* progress);

    /// Whether it begins with a journal's superblock.
    bool isValid() const { return superblock_.has_value(); }

    /// What has been written to the journal and not yet to its own place: of the transactions at
    /// the log's start those that are whole.
    ExtBlocks::Overlay replay();
    /// The number of the transaction that would follow on what was replayed.
    ExtSequence next() const { return next_; }
    /// A block of those that fast commits have behind the log; empty when there is none.
    Bytes fastCommitBlock(std::uint32_t index) const;

    /// All states that were found of whole transactions, by block and then by sequence.
    std::span<const ExtJournalCopy> copies() const { return copies_; }
    std::span<const ExtJournalCopy> copiesOf(std::uint64_t block) const;
    /// The state itself; empty where its checksum says that it is another's.
    Bytes content(const ExtJournalCopy& copy) const;

    /// The last transaction that was found whole; 0 when there is none.
    ExtSequence newest() const { return newest_; }
    /// Whether the log keeps all transactions behind this one. Where it has gone round, the next
    /// mount begins at its start again, and writes over what was newest.
    bool isCompleteSince(ExtSequence sequence) const { return sequence >= completeSince_; }
    /// Whether the log reaches back to this second.
    bool reachesBackTo(std::uint64_t seconds) const;
    /// The earliest transaction of those that were committed at this second or later; none when
    /// all were earlier.
    std::optional<ExtSequence> firstSince(std::uint64_t seconds) const;

private:
    /// A block of the log that is no copy.
    struct Control {
        std::uint32_t type = 0;
        ExtSequence sequence = 0;
        std::uint32_t length = 1; ///< blocks until the next one should come
        std::size_t firstClaim = 0, claimCount = 0;
        std::size_t firstRevoked = 0, revokedCount = 0;
    };
    /// A copy that a descriptor block speaks of.
    struct Claim {
        std::uint32_t position = 0;
        ExtJournalCopy copy;
    };

    bool hasFeature(std::uint32_t feature) const;
    bool hasChecksums() const;
    std::uint64_t offsetOf(std::uint32_t position) const;
    std::uint32_t logEnd() const;
    std::uint32_t wrap(std::uint64_t position) const;
    void findSuperblock();
    void search(WorkProgress* progress);
    void take(std::uint32_t position, ByteView block);
    bool isTailSound(ByteView block) const;
    void readTags(std::uint32_t position, ByteView block, Control& control);
    void readRevoked(ByteView block, Control& control);
    void keepNewestClaims();
    void findGap();
    bool isIntact(const Claim& claim) const;
    std::uint32_t sumWith(std::uint32_t sum, std::uint32_t position, const Control& control) const;
    bool isVouchedFor(std::uint32_t position, std::uint32_t sum) const;

    DiskSource& source_;
    const ExtGeometry geometry_;
    const std::vector<ByteRange> pieces_;
    std::vector<std::uint64_t> piecePositions_; ///< of the first block of each piece
    std::uint32_t blockCount_ = 0;
    std::uint32_t seed_ = 0;
    std::optional<ExtJournalFormat::Superblock> superblock_;
    std::map<std::uint32_t, Control> controls_; ///< by position
    std::vector<Claim> claims_;
    std::vector<std::uint64_t> revoked_;
    std::vector<ExtJournalCopy> copies_;
    std::map<ExtSequence, std::uint64_t> commitSeconds_;
    ExtSequence newest_ = 0;
    ExtSequence next_ = 0;
    ExtSequence completeSince_ = 0;
};
