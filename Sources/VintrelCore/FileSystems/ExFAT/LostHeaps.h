#pragma once

#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"

#include <cstdint>
#include <memory>
#include <vector>

/// exFAT volumes without a boot sector.
class ExFATLostHeaps : public LostHeaps {
public:
    ExFATLostHeaps(DiskSource& source, const DirectoryHints& hints, WorkProgress* progress);

private:
    Clues cluesOf(std::uint64_t sector) override;
    std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors) override;
};
