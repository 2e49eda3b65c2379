#pragma once

#include "VintrelCore/FileSystems/Ext/Content.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Lives.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A file or folder of the volume, which exists or has ended.
struct ExtEntry {
    using Index = ParentLinks::Index;

    std::uint32_t number = 0;
    std::uint32_t generation = 0;
    std::uint16_t kind = 0;
    std::uint32_t deleted = 0; ///< seconds since 1970; 0: not known
    std::uint16_t links = 0;
    ExtSequence born = 0;
    ExtSequence died = ExtLife::now; ///< as ExtLife has it, or earlier
    ExtSequence diedAtLatest = ExtLife::now;
    /// States of directories from before this transaction have its name. Never later than
    /// `diedAtLatest`.
    ExtSequence namedBefore = ExtLife::now;
    /// The first transaction whose state of it is dead, where only such states are left of it.
    ExtSequence firstDead = 0;
    ExtSequence namedAt = 0; ///< when it had its name
    /// Whether its blocks are still its own: it was open, or waited to be taken apart.
    bool isUnfreed = false;
    Index parent = ParentLinks::none;
    Doubts doubts = {}; ///< of what has ended
    std::unique_ptr<FileNode> node = {};

    bool isAlive() const { return died == ExtLife::now; }
    bool isNamed() const { return !node->name.empty(); }
};

/// A folder whose blocks are to be read.
struct ExtFolder {
    ExtEntry::Index entry = 0;
    std::vector<ExtRun> runs;
    Bytes slot; ///< only where the content lies in the inode
};

/// The files and folders of a volume, without names at first: those that exist by number, then
/// those that have ended.
struct ExtFiles {
    std::vector<ExtEntry> entries;
    std::vector<ExtFolder> folders; ///< in the order of their first blocks
    std::size_t livingCount = 0;

    /// What exists with this number; none when nothing does.
    ExtEntry* findLiving(std::uint32_t number);
    /// What had this number when the transaction ended and has ended since; none when nothing had,
    /// or nothing says so.
    ExtEntry* findEnded(std::uint32_t number, ExtSequence sequence);
    /// What had this number and had ended by then; of several the one that ended last.
    ExtEntry* findLastEnded(std::uint32_t number, ExtSequence sequence);
};

namespace ExtTables {

/// Reads all inode tables, and what the journal has of them. `progress` may be none.
ExtFiles read(const ExtContext& context, ExtContent& content, WorkProgress* progress);

} // namespace ExtTables
