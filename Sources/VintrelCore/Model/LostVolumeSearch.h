#pragma once

#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/ListingBudget.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

class DiskSource;
class WorkProgress;
struct DeepScanResult;

/// A search for the volumes that a sweep's finds belong to and that no table names: what it goes
/// by, and what it has found so far. Used by one thread.
class LostVolumeSearch {
public:
    /// `known`: the volumes that the tables name. `partitionStarts`: where partitions begin, in
    /// bytes, whatever lies in them. `progress` may be none. What is given must outlive the search.
    LostVolumeSearch(DiskSource& source, std::uint64_t sourceSize, const DeepScanResult& finds,
        const VolumeList& known, std::span<const std::uint64_t> partitionStarts,
        WorkProgress* progress);

    DiskSource& source() const { return source_; }
    const DeepScanResult& finds() const { return finds_; }
    const VolumeList& known() const { return known_; }
    const VolumeList& found() const { return found_; }
    WorkProgress* progress() const { return progress_; }
    bool isCancelled() const;

    /// The volumes that are known and those found so far, in that order.
    std::vector<const Volume*> volumes() const;
    /// Where volumes are likely to begin, in bytes, each once: where partitions, those known and
    /// those found do, and where systems put the first one of a disk.
    std::vector<std::uint64_t> likelyStarts() const;
    /// Whether a volume of this kind that begins at this byte is known or found. The widths of FAT
    /// are one kind.
    bool hasVolume(FileSystemType type, std::uint64_t start) const;

    /// Takes a volume in. False for none.
    bool keep(std::unique_ptr<Volume> volume);
    /// Whether the volumes found so far leave room for more: a source is covered with volumes a few
    /// times over, as by formatting it again and again. More are made up, and each would take the
    /// memory of an allocation table. What the known volumes list counts as well.
    bool hasRoom() const;
    /// Tells the user what is being looked into: a "-filsystem" of this kind, or a "-container".
    void reportFound(FileSystemType type, std::string_view what) const;

    VolumeList takeFound() { return std::move(found_); }

private:
    void add(const Volume& volume);

    DiskSource& source_;
    const std::uint64_t sourceSize_;
    const DeepScanResult& finds_;
    const VolumeList& known_;
    const std::span<const std::uint64_t> partitionStarts_;
    WorkProgress* progress_;
    VolumeList found_;
    std::multimap<std::uint64_t, FileSystemType> typesByStart_; // of the volumes known and found
    std::uint64_t bytesCovered_ = 0; // by the volumes found, each for itself
    ListingBudget budget_;
};
