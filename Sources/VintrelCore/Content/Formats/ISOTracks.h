#pragma once

#include "VintrelCore/Content/Formats/ISOBoxes.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// ISO/IEC 14496-12, Sample Table Box and the boxes in it; Item Location Box for still pictures.

namespace Content::Formats {

/// How the samples of a track can be recognised.
enum class SampleKind : std::uint8_t {
    avc,  ///< units with their lengths, ISO/IEC 14496-15
    hevc, ///< the same
    mpeg4Video,
    h263,
    jpeg,
    aac,
};

struct SampleFormat {
    SampleKind kind;
    std::uint8_t lengthSize = 4; ///< of the lengths of units, in bytes
};

/// The samples of one track, one after the other. The tables stay in the file, so that only the
/// place among them is held.
class TrackSamples {
public:
    /// None for a track whose samples nothing shows, and for one with broken tables.
    static std::optional<TrackSamples> fromTrack(FileBytes& file, ByteRange track);
    /// The extents of the still pictures that "meta" describes, in the order of the file.
    static std::optional<TrackSamples> fromItems(FileBytes& file, ByteRange meta);

    SampleFormat format() const { return format_; }
    bool isAtEnd() const { return isAtEnd_; }
    /// Where the sample lies.
    ByteRange sample() const { return sample_; }
    /// False when the tables say that there is one more, and not where.
    bool next(FileBytes& file);

private:
    struct Table {
        std::uint64_t start = 0; ///< of its first entry
        std::uint32_t count = 0;
        std::uint8_t width = 0; ///< of an entry, in bytes
    };

    static std::optional<Table> tableOf(FileBytes& file, std::optional<ByteRange> box,
        std::uint64_t countPlace, std::uint8_t width);
    std::optional<std::uint32_t> samplesInChunk(FileBytes& file);
    bool beginChunk(FileBytes& file);
    bool setSample(FileBytes& file, std::uint64_t start);
    bool setExtent();

    SampleFormat format_ {};
    Table chunks_, groups_, sizes_;
    std::uint32_t equalSize_ = 0; ///< of every sample; 0: the table says it
    std::uint32_t chunk_ = 0, group_ = 0, index_ = 0, leftInChunk_ = 0;
    std::shared_ptr<const std::vector<ByteRange>> extents_; ///< of still pictures; else none
    ByteRange sample_ {};
    bool isAtEnd_ = false;
};

} // namespace Content::Formats
