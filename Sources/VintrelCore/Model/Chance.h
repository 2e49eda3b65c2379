#pragma once

#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <optional>
#include <string>

/// What speaks against a file's bytes being its own. Each doubt allows a chance at best, and most
/// have words for the user: the table of both is in Chance.cpp. Notes come in this order.
enum class Doubt : std::uint8_t {
    // of the entry or record that describes the file
    damagedDirectoryEntry,
    olderRecord, ///< the newest one cannot be read, and an older one steps in
    missingInode,
    missingDataAttribute,
    missingRuns,    ///< the place of some of it is not known, or not on the source
    unknownPlace,   ///< the place of none of it is
    uncertainPlace, ///< of the whole file system
    invalidStartCluster,
    halfStartCluster, ///< the system that deleted it may have cleared half of the number
    sizeBeyondVolume,
    brokenChain,
    guessedClusters,     ///< no chain says where it lies
    missingExtents,      ///< of a file that exists
    missingLaterExtents, ///< of a deleted file: only its first ones are described
    unknownBlocks,
    partlyUnknownBlocks,
    lostBlocks,        ///< as `partlyUnknownBlocks`, of a file that is deleted
    guessedBlocks,     ///< only what became free when it was deleted says where it lay
    guessedBeginning,  ///< only its later blocks are named: the first ones lie before them
    unknownSize,       ///< nothing but its blocks says how long it was
    overclaimedBlocks, ///< more files claim the same blocks than a sound volume has room for
    missingLinkedFile, ///< what a hard link stands for
    sharedContent,     ///< of a hard link that is one of too many to a file in too many pieces
    missingLinkTarget, ///< the text of a symbolic link
    // of who owns the clusters by now
    reusedFirstCluster,
    reusedBlocks,
    reusedClusters,
    partlyReused,
    fewReusedClusters,
    unknownAllocation,     ///< nothing that was read says who owns them
    unknownReuse,          ///< the same, where the user is told so for each file
    reusedFirstByDeleted,  ///< a file that is deleted too had the first of them later
    partlyReusedByDeleted, ///< it had others of them
    contestedByDeleted,    ///< it had some of them, and may have been the later one
    // of what the source still is
    beyondSource, ///< some of it lies behind the source's end
    // of the content
    encrypted,
    encryptedByExt,
    compressedByHFS,
    compressedByAPFS,
    compressedByWindows,
    deduplicated,
    onlyInCloud,     ///< the disk has the file's name and size alone
    partlyElsewhere, ///< some of it is compressed, deduplicated or in a cloud
    damagedRecord,
    count
};

/// A set of doubts.
class Doubts {
public:
    constexpr Doubts() = default;
    constexpr Doubts(Doubt doubt) { add(doubt); }

    constexpr void add(Doubt doubt) { bits_ |= bit(doubt); }
    constexpr void add(Doubts others) { bits_ |= others.bits_; }
    constexpr bool has(Doubt doubt) const { return (bits_ & bit(doubt)) != 0; }
    constexpr bool empty() const { return bits_ == 0; }

private:
    using Bits = std::uint64_t;
    static_assert(static_cast<unsigned>(Doubt::count) <= 8 * sizeof(Bits));
    static constexpr Bits bit(Doubt doubt) { return Bits { 1 } << static_cast<unsigned>(doubt); }

    Bits bits_ = 0;
};

/// What became of the clusters or blocks in which a deleted file lay.
struct ClusterUse {
    std::uint64_t checked = 0;   ///< how many were asked after
    std::uint64_t foreign = 0;   ///< of these, how many belong to others by now
    bool isFirstForeign = false; ///< whether the file's first one does
    bool isUnknown = false;      ///< of some of them nothing says to whom they belong
};

/// How a file system takes reused clusters, and the words that it has for them.
struct ReuseRule {
    Doubt first;           ///< the file's first cluster belongs to another file
    Doubt some;            ///< any of them does
    bool mostCountAsFirst; ///< more than half of them weigh as much as the first one
    Doubt unknown = Doubt::unknownAllocation; ///< of some of them nothing is known
};
inline constexpr ReuseRule fatReuse { Doubt::reusedFirstCluster, Doubt::partlyReused, false };
inline constexpr ReuseRule appleReuse { Doubt::reusedBlocks, Doubt::partlyReused, false };
inline constexpr ReuseRule extReuse { Doubt::reusedBlocks, Doubt::partlyReused, false,
    Doubt::unknownReuse };
inline constexpr ReuseRule ntfsReuse { Doubt::reusedClusters, Doubt::fewReusedClusters, true,
    Doubt::unknownReuse };

/// What the use of a file's clusters gives reason to doubt.
Doubts doubtsOf(const ClusterUse& use, const ReuseRule& rule);

struct Chance {
    Recoverability level = Recoverability::good;
    std::optional<std::string> note; ///< Danish; the words of several doubts are joined with "; "
};

/// The chance that these doubts leave. What makes it poor is certain, whatever else is not known.
Chance chanceOf(Doubts doubts);

/// Gives a file the chance that these doubts leave, and adds their words to its note.
void judge(FileNode& node, Doubts doubts);

/// Lowers the chance of a file that was judged before to what these doubts leave, and adds those of
/// their words that its note lacks. A chance is never raised.
void judgeFurther(FileNode& node, Doubts doubts);

/// The same of what belongs to a file, which has no note of its own.
void judgeFurther(Attachment& attachment, Doubts doubts);

/// Adds the words of these doubts that a file's note lacks, and leaves its chance as it is.
void noteDoubts(FileNode& node, Doubts doubts);
