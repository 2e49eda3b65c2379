#pragma once

#include "VintrelCore/FileSystems/Ext/BlockMap.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Lives.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"

#include <memory>
#include <vector>

/// Makes files and folders of inodes, without names. Used by one thread at a time.
class ExtContent {
public:
    explicit ExtContent(const ExtContext& context)
        : context_(context)
        , maps_(context.geometry())
    {
    }

    struct Made {
        std::unique_ptr<FileNode> node; ///< none for what has no content: devices and the like
        std::vector<ExtRun> runs;       ///< of a folder
        Doubts doubts;
    };

    /// A file or folder that exists, judged.
    Made makeLiving(const ExtInode& inode, ByteView slot);
    /// One that is gone; its doubts are about what is known of its place, and it is not judged.
    Made makeDead(const ExtLife& life);

    /// Gives a deleted file the blocks that it is said to have had, and the size that those lead
    /// to.
    void takeRuns(FileNode& node, const ExtMapping& mapping) const;

    /// Files and folders whose inode or map has a wrong checksum.
    std::size_t unsoundCount() const { return unsoundCount_; }

private:
    Made make(const ExtInode& inode, ByteView slot, EntryStatus status,
        const ExtBlockMaps::Lookup& lookup);
    void takeTraces(Made& made, const ExtLife& life);
    Bytes lookUpOld(
        std::uint64_t block, const ExtLife& life, const ExtBlockMaps::Judge& judge) const;

    const ExtContext& context_;
    ExtBlockMaps maps_;
    std::size_t unsoundCount_ = 0;
};
