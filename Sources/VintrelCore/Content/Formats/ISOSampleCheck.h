#pragma once

#include "VintrelCore/Content/Formats/ISOTracks.h"

#include <cstdint>

namespace Content::Formats {

/// Whether the samples of one track look like what they should be, one after the other.
class SampleCheck {
public:
    enum class Result : std::uint8_t {
        whole, ///< nothing contradicts the sample
        waits, ///< not all of it is there
        wrong, ///< a byte up to `position` is not the sample's
    };

    /// To be told before each sample.
    void begin(SampleFormat format, ByteRange sample);
    /// Goes on with the sample as far as it is there.
    Result advance(FileBytes& file);
    std::uint64_t position() const { return position_; }
    /// No break lies before this byte; 0 when no sample has told yet.
    std::uint64_t firm() const { return firm_; }

private:
    Result checkPrefix(FileBytes& file);
    Result checkUnits(FileBytes& file);
    Result checkSound(FileBytes& file);
    bool beginUnit(FileBytes& file);
    bool isUnitSound(ByteView bytes);

    SampleFormat format_ {};
    ByteRange sample_ {};
    std::uint64_t position_ = 0, firm_ = 0;
    std::uint64_t unitEnd_ = 0; ///< of the unit that is being followed
    int zeros_ = 0;             ///< how many came last in the unit
    int soundInRow_ = 0;        ///< how many samples of sound ended as they should
    std::uint64_t rowStart_ = 0;
    bool isSoundTelling_ = false;
    bool isSoundMute_ = false; ///< whether this track's sound ends otherwise
};

} // namespace Content::Formats
