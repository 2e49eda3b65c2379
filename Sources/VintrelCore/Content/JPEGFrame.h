#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

/// What the marker segments of a JPEG picture say of its scans (ITU-T T.81, Annex B).
namespace Content::JPEG {

enum Marker : std::uint8_t {
    temporary = 0x01,
    baselineFrame = 0xC0,
    extendedFrame = 0xC1,
    progressiveFrame = 0xC2,
    huffmanTables = 0xC4,
    reserved = 0xC8,
    arithmeticConditioning = 0xCC,
    lastFrame = 0xCF,
    firstRestart = 0xD0,
    lastRestart = 0xD7,
    startOfImage = 0xD8,
    endOfImage = 0xD9,
    startOfScan = 0xDA,
    quantisationTables = 0xDB,
    lineCount = 0xDC,
    restartDefinition = 0xDD,
    app0 = 0xE0,
    comment = 0xFE,
    escape = 0xFF,
};

/// A table of codes (Annex C). A code is looked up by the 16 bits that begin with it.
class HuffmanTable {
public:
    struct Code {
        std::uint8_t length = 0; ///< in bits; 0 where no code begins like that
        std::uint8_t symbol = 0;
    };

    /// From the counts of codes of each length, 1 to 16, and the symbols in that order; none where
    /// there are more codes than bits can tell apart.
    static std::optional<HuffmanTable> from(ByteView counts, ByteView symbols);

    Code find(std::uint16_t bits) const
    {
        const auto code = short_[bits >> (16 - shortBits)];
        return code.length != 0 ? code : findLong(bits);
    }

private:
    static constexpr int shortBits = 9;

    Code findLong(std::uint16_t bits) const;

    std::array<Code, 1U << shortBits> short_ {};
    std::array<std::uint32_t, 17> endOfLength_ {}; ///< of the codes, as the first 16 bits
    std::array<std::uint32_t, 17> firstOfLength_ {};
    std::array<std::uint16_t, 17> firstSymbol_ {};
    std::vector<std::uint8_t> symbols_;
};

struct Component {
    std::uint8_t id = 0;
    std::uint8_t across = 1; ///< its blocks in a unit of an interleaved scan
    std::uint8_t down = 1;
    std::uint8_t quantiser = 0; ///< the number of its table
};

struct Frame {
    std::uint8_t kind = baselineFrame;
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::vector<Component> components; ///< one to four
    std::uint8_t mostAcross = 1;
    std::uint8_t mostDown = 1;

    bool isProgressive() const { return kind == progressiveFrame; }
    /// From the content of a frame header; none where it describes no picture.
    static std::optional<Frame> from(ByteView segment, std::uint8_t marker);
};

/// All that segments have set by now. A scan goes by what was set before it.
struct Settings {
    std::array<std::shared_ptr<const HuffmanTable>, 4> dcTables;
    std::array<std::shared_ptr<const HuffmanTable>, 4> acTables;
    std::array<std::uint16_t, 4> dcSteps { 1, 1, 1, 1 }; ///< of the quantisation tables
    std::shared_ptr<const Frame> frame;
    std::uint32_t restartInterval = 0; ///< in units of a scan; 0: without

    /// Takes up a segment that defines something. False where it contradicts the standard.
    bool take(std::uint8_t marker, ByteView segment);

private:
    bool takeHuffmanTables(ByteView segment);
    bool takeQuantisers(ByteView segment);
};

/// What is decoded of each block in a scan.
enum class ScanKind : std::uint8_t {
    wholeBlocks,
    firstDC,
    moreDC,
    firstAC,
    moreAC,  ///< a bit for each coefficient that is not zero, so that those have to be known
    skipped, ///< corrects more than is remembered
};

struct ScanComponent {
    std::uint8_t index = 0; ///< among the frame's components
    std::uint32_t blocks = 1;
    std::uint16_t dcStep = 1;
    std::shared_ptr<const HuffmanTable> dc;
    std::shared_ptr<const HuffmanTable> ac;
};

struct Scan {
    ScanKind kind = ScanKind::wholeBlocks;
    std::vector<ScanComponent> components;
    std::uint64_t units = 0;       ///< in the whole scan
    std::uint32_t unitsAcross = 0; ///< in a row
    std::uint8_t firstCoefficient = 0;
    std::uint8_t lastCoefficient = 63;
    std::uint8_t shift = 0; ///< of the values: bits that later scans bring
    std::uint32_t restartInterval = 0;

    /// From the content of a scan header; none where the settings do not allow such a scan.
    static std::optional<Scan> from(ByteView segment, const Settings& settings);
};

} // namespace Content::JPEG
