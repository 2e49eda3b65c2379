#pragma once

#include "Tests/Fuzz/Support/Bases.h"
#include "Tests/Support/Exercise.h"

#include <vector>

/// A target whose inputs are recipes of disks. Each program defines its own `target`.
struct DiskTarget {
    std::vector<Bases::Number> bases; ///< at least one
    std::string (*exercise)(DiskSource& source, const Bytes& bytes);
};

extern const DiskTarget target;

/// What the tables name, and what the parsers find lost.
inline std::string quickScan(DiskSource& source, const Bytes& bytes)
{
    auto finding = Exercise::quick(source);
    return finding.empty() ? Exercise::lost(source, bytes) : finding;
}
