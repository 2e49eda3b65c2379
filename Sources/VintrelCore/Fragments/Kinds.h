#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <string_view>

namespace Fragments {

/// Kinds of file that are built alike.
enum class Family : std::uint8_t { other, zip, pdf, isoMedia, avi, matroska, compound, tiff };

Family familyOf(std::string_view extension);

/// Whether files of this kind hold files of other kinds inside themselves, as a document does
/// pictures.
bool holdsOthers(std::string_view extension);

/// Whether nearly all of such a file is compressed, so that text or zeros in it are another's.
bool isCompressed(std::string_view extension);

/// Whether checksums follow soon behind all that they cover, so that a piece is certain as soon as
/// one of them behind its beginning is right.
bool hasChecksums(std::string_view extension);

/// Whether the first bytes of a unit are neither text nor zeros.
bool looksCompressed(ByteView unit);

} // namespace Fragments
