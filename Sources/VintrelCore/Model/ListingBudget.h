#pragma once

#include "VintrelCore/Model/Volume.h"

#include <cstdint>

/// How many files and folders all volumes of a source together may list. Each needs an entry of its
/// own on the source: more come from made-up tables that name the same structures again and again.
/// Used by one thread.
class ListingBudget {
public:
    /// `sourceSize`: in bytes.
    explicit ListingBudget(std::uint64_t sourceSize);

    /// Counts what a volume lists, wherever that leads.
    void count(const Volume& volume);
    /// Whether another volume may be read.
    bool hasRoom() const { return listed_ < limit_; }

private:
    std::uint64_t limit_;
    std::uint64_t listed_ = 0;
};
