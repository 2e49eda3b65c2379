#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Fragments/Space.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

class WorkProgress;

namespace Fragments {

/// A structure near the end of a file that says where in its file it lies.
struct Anchor {
    enum class Kind : std::uint8_t {
        zipEnd,
        pdfEnd,
        moov,
        filmIndex,
        cues,
        sectorTable, ///< of a compound file
        rootEntry,   ///< the first one of a compound file's directory
        directory,   ///< of a TIFF file
    };

    Kind kind {};
    std::uint64_t offset = 0; ///< of its mark, in bytes on the source
};

/// The anchors in free space that files with these extensions may have. Stops
/// early, with those found so far, when it was cancelled or has read as much as it may.
std::vector<Anchor> findAnchors(BlockCache& cache, const Space& space,
    std::span<const std::string_view> extensions, const WorkProgress* progress);

/// What is to be added to a position in the file to get the place on the source, by each anchor
/// that may belong to the file that begins with `pieces`; modulo 2^64.
std::vector<std::uint64_t> shiftsFor(std::string_view extension,
    const std::vector<ByteRange>& pieces, std::span<const Anchor> anchors, BlockCache& cache);

/// The end of the film that begins with `pieces` and does not say before its end where its
/// samples lie; none for other files, and where no anchor fits what can be seen of its samples.
std::optional<KnownEnd> endFor(std::string_view extension, const std::vector<ByteRange>& pieces,
    std::span<const Anchor> anchors, BlockCache& cache);

} // namespace Fragments
