#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <vector>

/// Deleted files that lay in the same bytes of the source. Only the last of them can still have
/// them, and no table of what is in use now can say which one that is. Memory and time are those of
/// sorting the claims. Used by one thread at a time.
class DeletedClaims {
public:
    /// A piece of a deleted file.
    struct Claim {
        FileNode* file = nullptr; ///< none: only other files are judged by the claim
        ByteRange range;
        std::uint64_t time = 0; ///< when the file is known to have had it, in any unit
        bool isStart = false;   ///< the file's first piece
        /// Two files that share pieces with others are not held to exclude each other.
        bool isShared = false;
    };

    /// What it means that two files had the same bytes at the same time.
    enum class SameTime {
        theyShareThem,
        undecided, ///< nothing says which of them was the later one
    };

    explicit DeletedClaims(SameTime sameTime)
        : sameTime_(sameTime)
    {
    }

    void add(const Claim& claim) { claims_.push_back(claim); }

    /// Tells `tell` of every file whose bytes another one had later, or may have had. The order is
    /// not defined.
    void forEachDoubted(const std::function<void(FileNode&, Doubts)>& tell);
    /// Keeps the claims and lets go of their files.
    void forgetFiles();

private:
    using DoubtsByFile = std::unordered_map<FileNode*, Doubts>;

    static void findUndecided(std::span<Claim> sameTime, DoubtsByFile& found);

    const SameTime sameTime_;
    std::vector<Claim> claims_;
};
