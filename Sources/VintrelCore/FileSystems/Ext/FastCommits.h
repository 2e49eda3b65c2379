#pragma once

#include "VintrelCore/FileSystems/Ext/BlockMap.h"
#include "VintrelCore/FileSystems/Ext/Journal.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// What fast commits say that follow on the transactions of a journal ("Fast commits"): single
/// changes instead of whole blocks.
struct ExtFastCommits {
    /// The new state of an inode.
    struct Inode {
        std::uint32_t number = 0;
        Bytes state; ///< the beginning of its slot
    };
    /// A name that a folder has, or had.
    struct Name {
        std::uint32_t folder = 0, number = 0; ///< inodes
        std::string name;

        // NOLINTNEXTLINE(modernize-use-nullptr): it takes the zero of comparisons for a pointer
        auto operator<=>(const Name&) const = default;
    };
    std::vector<Inode> inodes;  ///< in the order of the changes
    std::map<Name, bool> names; ///< whether the folder has it in the end
    std::vector<ExtRun> runs;   ///< of blocks that files got

    /// Those whose checksum fits, up to the first that has another one. None where the journal has
    /// been written to since by whole transactions.
    static ExtFastCommits read(const ExtJournal& journal);
};
