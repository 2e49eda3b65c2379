#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/// A B-tree file of HFS+, in memory.
class HFSPlusBTree {
public:
    /// Takes a leaf record. `isLive`: its node is part of the tree, and not one that the tree gave
    /// up.
    using Body = std::function<void(ByteView record, bool isLive)>;

    /// None when the bytes are no tree.
    static std::optional<HFSPlusBTree> open(Bytes bytes);

    /// Hands every record of every leaf node to `body`, in the order of the nodes' numbers.
    /// `isDamaged(offset, length)` tells whether a range of the tree could not be read: where that
    /// cuts the chain of leaves, those that the index still names are live too.
    void forEachLeafRecord(
        const std::function<bool(std::uint64_t, std::uint64_t)>& isDamaged, const Body& body) const;

    /// The data of a record: it begins behind the key, at an even offset.
    static ByteView dataOf(ByteView record);

    ByteView bytes() const { return bytes_; }

private:
    HFSPlusBTree(Bytes bytes, const HFSPlusFormat::HeaderNode& header);

    std::optional<HFSPlusFormat::NodeDescriptor> descriptor(std::uint32_t node) const;
    ByteView node(std::uint32_t number) const;
    template <class Visit> void forEachRecord(std::uint32_t node, Visit visit) const;
    void markIndexed(std::vector<bool>& live) const;

    Bytes bytes_;
    std::uint32_t nodeSize_;
    std::uint32_t nodeCount_;
    std::uint32_t firstLeaf_;
    std::uint32_t root_;
};
