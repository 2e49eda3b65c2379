#include "VintrelCore/Carving/Formats/IWork.h"

#include "VintrelCore/Carving/Formats/SevenBits.h"
#include "VintrelCore/Disk/RandomReader.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"
#include "VintrelCore/Foundation/ZIPLayout.h"

#include <algorithm>
#include <string>

// Apple documents nothing of what iWork writes since 2013; what is known of it is that a document
// is a chain of messages in the encoding of Protocol Buffers, packed with Snappy ("Snappy
// compressed format description", but for the sums), each behind a header with the number of its
// type.

namespace Formats {

namespace {

constexpr std::size_t headSize = 64;
constexpr std::int64_t chunkHeaderSize = 4; // a zero, and the length in three bytes

/// A number of seven bits in each byte; moves `at` behind it.
std::uint64_t varint(ByteView bytes, std::int64_t& at)
{
    constexpr unsigned maxBits = 35;
    return readSevenBits([&] { return bytes.u8(at++); }, maxBits).value;
}

/// Where the first bytes that are copied as they are begin in packed ones; 0 when others come
/// first.
std::int64_t firstLiteral(ByteView packed)
{
    constexpr unsigned lengthsInTag = 60;
    std::int64_t at = chunkHeaderSize;
    varint(packed, at); // how long all is without packing
    const unsigned tag = packed.u8(at++);
    if (packed.u8(0) != 0 || (tag & 3) != 0)
        return 0;
    const auto length = tag >> 2;
    return length < lengthsInTag ? at : at + length - lengthsInTag + 1;
}

/// The type of the first message; 0 when it does not say.
std::uint64_t firstType(ByteView packed)
{
    constexpr std::uint64_t number = 0x08, messageType = 0x08, message = 0x12; // field and form
    std::int64_t at = firstLiteral(packed);
    if (at == 0)
        return 0;
    varint(packed, at); // the header's length
    if (varint(packed, at) != number)
        return 0;
    varint(packed, at);
    if (varint(packed, at) != message)
        return 0;
    varint(packed, at);
    return varint(packed, at) == messageType ? varint(packed, at) : 0;
}

/// As much as there is room for.
void unpack(const Bytes& packed, std::span<char> to)
{
    using Compression::Inflater;
    Bytes bytes(to.size());
    const auto progress = Inflater(Inflater::Wrapping::raw).unpack(packed, bytes);
    std::copy_n(bytes.begin(), progress.produced, to.begin());
}

} // namespace

const char* iWorkKind(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t textDocument = 10'000;
    constexpr std::uint64_t otherDocument = 1; // of Numbers, and of Keynote
    const auto header = file.load<ZIPLayout::LocalHeader>(position);
    const auto type = firstType(file.bytes(position + header.dataOffset(), headSize));
    if (type == textDocument)
        return "pages";
    return type == otherDocument ? "numbers" : "zip";
}

const char* iWorkKindByXML(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint16_t stored = 0;
    constexpr std::size_t packedSize = 512; // the codes of a block come first
    const auto header = file.load<ZIPLayout::LocalHeader>(position);
    const auto packed = file.bytes(position + header.dataOffset(), packedSize);
    std::string text(headSize, '\0');
    if (header.method == stored)
        std::copy_n(packed.begin(), headSize, text.begin());
    else
        unpack(packed, text);
    if (text.find("<sl:document") != std::string::npos)
        return "pages";
    return text.find("<ls:document") != std::string::npos ? "numbers" : "zip";
}

} // namespace Formats
