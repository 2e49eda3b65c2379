#pragma once

#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <cstdint>
#include <memory>
#include <optional>

// ISO 32000-1, Stream Objects and Filters.

namespace Content::Formats {

/// What the dictionary in front of a stream says of it.
struct PDFStreamSetup {
    enum class Coding : std::uint8_t { flate, jpeg, other };

    std::optional<std::uint64_t> length; ///< none where it is another object
    Coding coding = Coding::other;       ///< the outermost one
    bool holdsPlaces = false;            ///< of objects: a cross-reference stream

    static constexpr std::uint64_t maxLength = std::uint64_t { 1 } << 40;

    /// `dictionary` is the text from the object's start to its stream.
    static PDFStreamSetup from(ByteView dictionary);
};

/// Follows the data of a stream up to the keyword behind them.
class PDFStream {
public:
    enum class Result : std::uint8_t { whole, waits, wrong };

    PDFStream(const PDFStreamSetup& setup, std::uint64_t start);
    PDFStream(const PDFStream& other);
    PDFStream& operator=(const PDFStream&) = delete;
    ~PDFStream() = default;

    /// Goes on as far as the file goes.
    Result advance(FileBytes& file);
    /// Behind what was followed; in the end behind "endstream".
    std::uint64_t position() const { return position_; }
    std::uint64_t start() const { return start_; }
    /// Where the data end that a checksum or a decoder vouches for; the start where none does.
    std::uint64_t verifiedEnd() const { return verifiedEnd_; }
    /// The unpacked data of a stream that holds places; cut where there are very many.
    const Bytes& places() const { return places_; }

private:
    Result followData(FileBytes& file);
    Result inflate(FileBytes& file);
    Result followJPEG(FileBytes& file);
    Result search(FileBytes& file);
    Result finish(FileBytes& file);

    PDFStreamSetup setup_;
    std::uint64_t start_, position_, verifiedEnd_;
    bool isDataOver_ = false;
    std::optional<Compression::Inflater> inflater_;
    std::unique_ptr<Checker> picture_;
    Bytes places_;
};

} // namespace Content::Formats
