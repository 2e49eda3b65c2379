#pragma once

#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"

#include <cstdint>
#include <memory>
#include <vector>

/// FAT volumes without a boot sector.
class FATLostHeaps : public LostHeaps {
public:
    FATLostHeaps(DiskSource& source, const DirectoryHints& hints, WorkProgress* progress);

private:
    Clues cluesOf(std::uint64_t sector) override;
    std::vector<std::uint64_t> usualRoots(const ClusterHeap& heap) override;
    std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors) override;
};
