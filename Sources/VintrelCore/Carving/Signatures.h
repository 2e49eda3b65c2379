#pragma once

#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <array>
#include <cstdint>
#include <optional>

using FormatReader = Formats::Found (*)(const Candidate&);

/// A kind of file by its first four bytes. A new format is a row in the table and a reader in
/// Formats.h.
struct Signature {
    std::array<std::uint8_t, 4> magic;
    std::array<std::uint8_t, 4> mask; ///< the bits that count
    std::optional<FileCategory>
        gate; ///< none: one signature, several kinds; `wants` sorts them out
    FormatReader read;
};

/// The first row that the bytes match; null when none does.
const Signature* signatureOf(ByteView head);

/// Who reads the kinds whose sure marks lie further in than the table looks; null when none of them
/// begins with these bytes. Asked of nearly every sector.
FormatReader readerByInnerMark(ByteView head);
