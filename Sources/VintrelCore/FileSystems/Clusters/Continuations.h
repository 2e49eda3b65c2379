#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>

/// Where directories continue whose chains are lost, as far as the order tells in which systems
/// give out clusters.
struct Continuations {
    /// Clusters in which a directory may continue, by the cluster that their first entry names.
    std::multimap<std::uint64_t, std::uint32_t> byFirstContent;

    /// Where a directory continues that fills `cluster`; none where nothing is known.
    /// `endOfContent`: the cluster behind the content that its last entry names.
    /// `canContinueIn(cluster)` tells whether a directory continues there that belongs to nobody
    /// yet.
    template <class CanContinue>
    std::optional<std::uint32_t> next(
        std::uint32_t cluster, std::uint64_t endOfContent, CanContinue canContinueIn)
    {
        // A directory that is full gets the next free cluster: the one behind it, or behind what
        // was written last.
        for (const std::uint64_t neighbour : { std::uint64_t { cluster } + 1, endOfContent })
            if (neighbour <= std::numeric_limits<std::uint32_t>::max()
                && canContinueIn(static_cast<std::uint32_t>(neighbour)))
                return static_cast<std::uint32_t>(neighbour);
        // Systems that write directories last let the files' contents follow each other.
        for (auto found = byFirstContent.find(endOfContent); found != byFirstContent.end();
             found = byFirstContent.find(endOfContent)) {
            // Whoever it belongs to has it by now, or gets it.
            const auto successor = byFirstContent.extract(found).mapped();
            if (canContinueIn(successor))
                return successor;
        }
        return std::nullopt;
    }
};
