#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <map>
#include <optional>

/// Sets of directory entries that the end of a cluster cuts, in directories whose chains are lost.
/// The checksum in a set's first entry says which rest belongs to it; but it is short, and that of
/// numbered names is often the same.
class CutSets {
public:
    explicit CutSets(const ClusterHeap& heap)
        : heap_(heap)
    {
    }

    /// Takes note of a cluster that begins in the middle of a set, with its first bytes.
    void addRest(std::uint32_t cluster, const Bytes& bytes) { rests_.emplace(cluster, bytes); }
    /// Takes note of the set that the end of a cluster cuts, if there is one. `tail`: the cluster's
    /// last bytes, whole entries.
    void addHead(std::uint32_t cluster, ByteView tail);

    /// The cluster that begins with the rest of the set that breaks off at the end of `cluster`:
    /// the one rest that fits no other set, or the one with which the directory continues. None
    /// where there is no such one. No rest is given out twice, and none that is claimed.
    std::optional<std::uint32_t> takeRest(const ExFATEntries::SetCollector& begun,
        std::uint32_t cluster, const ClusterClaims& claims);

private:
    std::optional<std::uint32_t> onlyRest(
        const ExFATEntries::SetCollector& begun, std::uint32_t cluster) const;
    bool hasOtherHead(std::uint32_t cluster, ByteView rest) const;

    const ClusterHeap& heap_;
    std::map<std::uint32_t, Bytes> rests_;
    std::map<std::uint32_t, ExFATEntries::SetCollector> heads_; // by the cluster that ends in them
};
