#pragma once

#include "VintrelCore/FileSystems/HFSPlus/ForkReader.h"
#include "VintrelCore/FileSystems/HFSPlus/Node.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

/// How much of a B-tree file was there.
struct HFSPlusTreeHealth {
    /// What told which leaves are live.
    enum class Authority : std::uint8_t { chain, index, map, none };

    bool isUnusable = false; ///< it is no tree, or what tells that it is one is lost
    bool isCut = false;      ///< the chain of leaves breaks off, or the header states more records
    Authority authority = Authority::chain;
    std::uint64_t lostBytes = 0;      ///< could not be read
    std::uint64_t missingRecords = 0; ///< of those that the header states
};

/// A B-tree file of HFS+. It is read once, in the order of its nodes; what is kept is a few bytes
/// for each node. Used by one thread at a time.
class HFSPlusBTree {
public:
    /// Takes a leaf record, which is there during the call only, and the number of its node.
    using Body = std::function<void(ByteView record, std::uint32_t node)>;

    /// What is known of a leaf node, in rising order.
    enum class Use : std::uint8_t {
        givenUp, ///< it is no part of the tree any more
        assumed, ///< nothing is left that could tell
        live,    ///< it is part of the tree
    };

    using Authority = HFSPlusTreeHealth::Authority;

    /// A kind of tree.
    struct Kind {
        /// By what records of damaged nodes are found.
        HFSPlusNode::RecordLength recordLength;
        /// Whether the tree is read where its header node is lost, too.
        bool mayLackHeader = false;
        /// Whether the file goes on behind what is read of it.
        bool isCapped = false;
    };

    /// None when the file is no tree.
    static std::optional<HFSPlusBTree> open(HFSPlusForkReader& file, const Kind& kind);

    /// Hands every record of every leaf node to `body`, in the order of the nodes; where the chain
    /// of leaves is cut, the records of damaged nodes follow. The use of the nodes is known only
    /// afterwards.
    void forEachLeafRecord(const Body& body);

    Use useOf(std::uint32_t node) const { return uses_[node]; }
    std::uint32_t nodeSize() const { return nodeSize_; } ///< in bytes
    /// Of the tree as `file` gave it.
    HFSPlusTreeHealth health(const HFSPlusForkReader& file) const;

private:
    struct Node {
        std::uint32_t next = 0;
        std::uint16_t recordCount = 0; ///< as stated
        std::uint16_t found = 0;       ///< records that were handed out
        std::uint8_t kind = 0;
        bool isBlank = false; ///< its descriptor is all zeros, and not all of the rest is
    };

    HFSPlusBTree(HFSPlusForkReader& file, const Kind& kind, std::uint32_t nodeSize,
        const HFSPlusFormat::HeaderNode& header);

    /// What is kept of each takes some memory, and no catalog has so many.
    static constexpr std::uint64_t maxNodes = 67'108'864;

    static std::uint32_t guessNodeSize(HFSPlusForkReader& file);
    ByteView bytesOf(std::uint32_t number);
    void readNodes(const Body& body);
    bool hasHeader() const;
    void followChain(const RangeSet& lost);
    bool isLost(const RangeSet& lost, std::uint32_t number) const;
    Authority findAuthority(const RangeSet& lost);
    bool markIndexed(const RangeSet& lost);
    bool markMapped(const RangeSet& lost);
    std::vector<bool> readMap(const RangeSet& lost);
    void salvageNodes(const Body& body);
    std::uint64_t liveRecords() const;

    HFSPlusForkReader& file_; // outlives the reading of the nodes
    Kind kind_;
    std::uint32_t nodeSize_;
    std::uint32_t nodeCount_;
    HFSPlusFormat::HeaderNode header_; // all zeros where it is lost
    std::vector<Node> nodes_;
    std::unordered_map<std::uint32_t, std::vector<std::uint32_t>> children_; // of index nodes
    std::vector<Use> uses_;
    std::vector<bool> isIndex_; // nodes between root and leaves, as the index says
    bool isCut_ = false;
    Authority authority_ = Authority::chain;
};
