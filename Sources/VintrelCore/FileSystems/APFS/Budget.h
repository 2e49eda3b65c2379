#pragma once

#include <cstdint>

/// What a damaged or made-up container may ask for in all, of reads or of memory. It only shrinks.
/// Used by one thread at a time.
class APFSBudget {
public:
    explicit APFSBudget(std::uint64_t amount)
        : left_(amount)
    {
    }

    /// Takes `count` from what is left. False, and nothing is taken, when that is less.
    bool take(std::uint64_t count)
    {
        if (count > left_)
            return false;
        left_ -= count;
        return true;
    }

private:
    std::uint64_t left_;
};
