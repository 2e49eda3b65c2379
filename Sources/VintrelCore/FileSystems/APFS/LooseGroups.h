#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

/// Sorts leaves of file-system trees that belong to no volume which was read into groups, one for
/// each volume, by what their records say of each other. Used by one thread at a time.
class APFSLooseGroups {
public:
    struct Group {
        std::vector<std::uint64_t> leaves; ///< in bytes on the source, ascending
        bool isHashed = false;             ///< directory records have the hash of their name
        std::uint64_t highestID = 0;       ///< of any object
    };

    /// Adds a leaf that lies at this byte.
    void add(std::uint64_t offset, ByteView leaf);
    /// The groups, that with the most leaves first.
    std::vector<Group> take();

private:
    /// Leaves that are known to belong together.
    struct Part {
        std::vector<std::uint64_t> leaves;
        std::unordered_map<std::uint64_t, std::uint64_t> created; ///< of inodes, by their numbers
        std::unordered_set<std::uint64_t> names; ///< with numbers of file and folder, as one hash
        std::vector<std::uint64_t> named; ///< numbers that other records are about; not of groups
        std::int64_t hashedVotes = 0;
        std::uint64_t highestID = 0;
    };
    using Index = std::size_t;

    Index rootOf(Index leaf);
    void join(Index leaf, std::uint64_t key);
    std::vector<Part> joinedParts();
    static std::int64_t agreement(const Part& group, const Part& part);
    static void merge(Part& group, Part&& part);
    static void joinSame(Part& part, Part&& leaf);

    std::vector<Part> parts_;    // one for each leaf
    std::vector<Index> parents_; // of a forest whose trees are what belongs together
    std::unordered_map<std::uint64_t, Index> leafByKey_;
};
