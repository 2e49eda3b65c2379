#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Directory.h"
#include "VintrelCore/FileSystems/Ext/Files.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A further name of a file.
struct ExtHardLink {
    ExtEntry::Index file = 0;
    ExtEntry::Index parent = 0;
    std::string name;
};

/// Gives files and folders their names: those that exist by the directories of now, and what has
/// ended by the newest state of a directory from the time when it lived. Used by one thread.
class ExtNames {
public:
    ExtNames(const ExtContext& context, ExtFiles& files)
        : context_(context)
        , files_(files)
    {
    }

    /// `progress` may be none.
    void read(WorkProgress* progress);

    const std::vector<ExtHardLink>& hardLinks() const { return hardLinks_; }
    /// Blocks of directories that break off.
    std::size_t damagedCount() const { return damagedCount_; }

private:
    /// Where and when a name was read.
    struct Place {
        ExtEntry::Index folder = 0;
        ExtSequence sequence = 0;
        bool isOfNow = false;   ///< read in a directory that exists, as it is
        bool isAnyTime = false; ///< from some time before the sequence
    };

    void readFolder(const ExtFolder& folder);
    void readInline(const ExtFolder& folder);
    void readRun(const ExtFolder& folder, const ExtRun& run);
    void readOld(const ExtFolder& folder, std::uint64_t block);
    void readNow(const ExtFolder& folder, std::uint64_t block, ByteView bytes);
    bool readEntries(ByteView block, const Place& place);
    void takeFastCommits();
    void take(const ExtDirectory::Entry& entry, const Place& place);
    void nameLiving(ExtEntry& file, const ExtDirectory::Entry& entry, const Place& place);
    void nameEnded(const ExtDirectory::Entry& entry, const Place& place);
    void noteParent(const ExtFolder& folder, std::uint32_t parent);
    bool isOfLiving(const ExtEntry& folder, ByteView block) const;
    bool isOfEnded(const ExtEntry& folder, ByteView block) const;

    const ExtContext& context_;
    ExtFiles& files_;
    std::vector<ExtHardLink> hardLinks_;
    std::uint64_t blocksRead_ = 0;
    std::size_t damagedCount_ = 0;
};
