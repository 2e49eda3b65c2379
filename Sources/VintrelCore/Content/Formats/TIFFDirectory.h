#pragma once

#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <cstdint>
#include <optional>
#include <vector>

// "TIFF Revision 6.0", Image File Header and Image File Directory; raw pictures of cameras have the
// same layout.

namespace Content::Formats {

/// One strip or tile.
struct TIFFStrip {
    enum class Coding : std::uint8_t { plain, lzw, deflate, packBits, jpeg, other };

    ByteRange range;
    Coding coding = Coding::other;
    std::uint32_t rowSize = 0;  ///< in bytes; 0 where it is not known
    std::uint64_t unpacked = 0; ///< bytes that come out; 0 where that is not known
    bool isSmooth = false;      ///< whether bytes below one another are alike
};

struct TIFFDirectory {
    std::uint64_t end = 0;             ///< behind the directory and all values that it names
    std::vector<std::uint64_t> others; ///< places of other directories
    std::vector<TIFFStrip> strips;
    bool isSound = true;
};

class TIFFReader {
public:
    explicit TIFFReader(bool isBigEndian)
        : isBigEndian_(isBigEndian)
    {
    }

    std::uint16_t u16(ByteView bytes, std::int64_t at) const
    {
        return isBigEndian_ ? bytes.u16be(at) : bytes.u16le(at);
    }
    std::uint32_t u32(ByteView bytes, std::int64_t at) const
    {
        return isBigEndian_ ? bytes.u32be(at) : bytes.u32le(at);
    }
    /// The directory at `place`; none while it and its values are not there in full.
    std::optional<TIFFDirectory> directory(FileBytes& file, std::uint64_t place) const;

private:
    struct Field {
        std::uint16_t tag, type;
        std::uint32_t count;
        std::uint64_t place; ///< of its first value
        std::uint64_t size;  ///< of all its values, in bytes
    };

    Field fieldAt(ByteView bytes, std::int64_t at, std::uint64_t place) const;
    std::vector<std::uint32_t> values(FileBytes& file, const Field* field) const;
    std::uint32_t value(FileBytes& file, const Field* field, std::uint32_t otherwise) const;
    void addStrips(
        FileBytes& file, const std::vector<Field>& fields, TIFFDirectory& directory) const;

    bool isBigEndian_;
};

} // namespace Content::Formats
