#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryWalker.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/FileSystems/ExFAT/CutSets.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/Model/Chance.h"

#include <optional>

/// Walks the directories of one exFAT volume.
class ExFATWalker : public DirectoryWalker {
public:
    ExFATWalker(ExFATContext& context, WorkProgress* progress);

    /// Finds the allocation bitmap, and then reads the root directory and everything below it.
    void walkRoot(FileNode& root);

    /// How many directories were read of which sectors in the middle are lost.
    std::size_t directoriesWithGaps() const { return directoriesWithGaps_; }

    Bytes tailOf(std::uint32_t cluster);

    CutSets cutSets; ///< of directories without a chain

private:
    /// What is known of the place of a file.
    struct Placed {
        Doubts doubts {};
        bool isCertain = true; ///< all of its clusters are known, not only the first one
    };

    void readDirectory(Scan& scan) override;
    std::optional<std::int64_t> parse(Scan& scan, ByteView entries) override;
    bool holdsEntries(ByteView sector) override;
    void endEntries(Scan& scan) override;
    ClusterChain chain(std::uint32_t start, std::uint64_t maxClusters) override;
    void resumeEntries(std::uint32_t cluster) override;
    bool isInsideEntries() const override { return sets_.isInside(); }
    std::optional<std::uint32_t> restOfEntries(std::uint32_t cluster) override;
    bool holdsMoreEntries(std::uint32_t cluster) override;

    QueuedDirectory rootDirectory(FileNode* root) const;
    void findBitmap();
    void readLive(Scan& scan);
    void readGuessed(Scan& scan, const ExtentList& extents);
    void readFragment(Scan& scan);
    void readRemains(Scan& scan, const ExtentList& extents);
    bool isStillIn(std::uint32_t cluster, const QueuedDirectory& directory);
    ExtentList extentsOf(const QueuedDirectory& directory);
    ExtentList fragmentExtents(const QueuedDirectory& directory);
    void claim(const ExtentList& extents, ClusterBits& clusters);
    void addRootEntry(const ExFATEntries::RawEntry& entry);
    bool hasDirectory(const ExFATEntries::StreamEntry& stream);
    void addSet(Scan& scan, const ExFATEntries::EntrySet& set);
    Placed placeFile(FileNode& node, const ExFATEntries::StreamEntry& stream, bool isLost);
    ExtentList chainedExtents(std::uint32_t start, std::uint64_t size, bool isLive);
    Doubts doubtsOfLive(std::uint64_t size, const ExtentList& extents);
    Doubts doubtsOfDeleted(
        std::uint64_t size, const ExtentList& extents, bool isCertain, bool isLost) const;
    bool areFree(std::uint32_t first, std::uint64_t count, bool isLost) const;
    ExtentList standingChain(std::uint32_t start, std::uint64_t size);

    ExFATContext& context_;
    ExFATEntries::SetCollector sets_; // of the directory that is being read
    std::size_t directoriesWithGaps_ = 0;
    std::uint64_t
        claimBudget_; // clusters that may still be claimed: made-up files can overlap without end
};
