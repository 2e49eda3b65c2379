#pragma once

#include "VintrelCore/FileSystems/Ext/Content.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"
#include "VintrelCore/FileSystems/Ext/Recognition.h"
#include "VintrelCore/Foundation/RangeSet.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

/// The blocks of a volume that are not in use and begin at one of these places, which ascend, in
/// bytes on the source.
std::vector<std::uint64_t> freeBlocksAt(
    ExtContext& context, const std::vector<std::uint64_t>& places);

/// What the volumes of a source list already: what loose blocks say of such files is known. Used by
/// one thread at a time.
class ExtListed {
public:
    static constexpr std::uint64_t directBlocks = 12; ///< whose places an inode has itself

    /// The volume must outlive it.
    void add(const Volume& volume, std::uint64_t blockSize);

    /// Whether the first block of some file behind the direct ones lies there, in bytes on the
    /// source.
    bool hasBehindDirect(std::uint64_t place) const { return behindDirect_.contains(place); }
    /// Whether some file begins at `start` and has its byte `position` at `place`; also where
    /// finding that out would take too long.
    bool has(std::uint64_t start, std::uint64_t position, std::uint64_t place) const;
    /// Whether a deleted file that is believed lies in these bytes of the source.
    bool isOfDeleted(std::uint64_t start, std::uint64_t end) const
    {
        return deleted_.intersects(start, end);
    }

private:
    /// Pieces of files that are gone through for all questions together. Two files that begin in
    /// one place are rare; more of them come from made-up disks.
    static constexpr std::uint64_t maxPieces = 67'108'864;

    std::set<std::uint64_t> behindDirect_;
    std::multimap<std::uint64_t, const ExtentList*> starts_;
    RangeSet deleted_;
    mutable std::uint64_t piecesLeft_ = maxPieces;
};

/// Files that only loose blocks tell of, without names. Used by one thread at a time.
class ExtLooseFiles {
public:
    /// Both must outlive it.
    ExtLooseFiles(ExtContext& context, const ExtListed& listed);

    /// How the beginning of a file is known.
    enum class Beginning : std::uint8_t { known, guessed };

    /// A file with blocks of which a loose one tells, by whose number it is called if it is not
    /// known which file of the volume has or had them. Its size is known only where its content
    /// says the same.
    void add(std::uint64_t block, const ExtMapping& mapping, Beginning beginning,
        const FileNode* file = nullptr);

    /// The folder with all of them, judged; none when there are none.
    std::unique_ptr<FileNode> takeFolder();

private:
    ExtContext& context_;
    const ExtListed& listed_;
    const ExtContent content_;
    ExtRecognition recognition_;
    ExtFiles files_;
};
