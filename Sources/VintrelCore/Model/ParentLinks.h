#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

/// How entries that name their parents hang together: which of them the root reaches, and where
/// rings and endless chains of folders, which only damage makes, are cut. Entries are known by
/// their index.
class ParentLinks {
public:
    using Index = std::size_t;

    // What an entry can hang under besides another entry.
    static constexpr Index none = std::numeric_limits<Index>::max(); ///< its folder is lost
    static constexpr Index root = none - 1;
    static constexpr Index system = none - 2; ///< a folder of the file system's own

    enum class Place : std::uint8_t {
        inTree,   ///< the way up ends at the root
        system,   ///< it ends in a folder that is not listed, and so is the entry
        orphaned, ///< it ends at an entry whose folder is lost, in a ring, or is too long
    };

    /// Folders hang no deeper than this; the root's own entries are level 1, and those in the
    /// folder of orphans level 2. What is done for every folder above a file stays cheap so.
    static constexpr std::uint16_t maxFolderLevel = 255;

    /// `parents`: of every entry, the index of another one, or one of the three above. Each is
    /// asked for once, whatever hangs below it.
    explicit ParentLinks(std::vector<Index> parents);

    Place placeOf(Index entry) const { return places_[entry]; }
    /// As it was given, but `none` for an entry at which a ring or a chain was cut.
    Index parentOf(Index entry) const { return parents_[entry]; }

private:
    std::vector<Index> parents_;
    std::vector<Place> places_;
};
