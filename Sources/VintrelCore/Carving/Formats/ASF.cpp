#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Advanced Systems Format (ASF) Specification" 01.20.05 (Microsoft): a header object, the data,
// and indexes. WMV and WMA are of this kind.

namespace Formats {

namespace {

using GUID = std::array<std::uint8_t, 16>;

constexpr GUID headerObject { 0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11, 0xA6, 0xD9, 0x00,
    0xAA, 0x00, 0x62, 0xCE, 0x6C };
constexpr GUID dataObject { 0x36, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11, 0xA6, 0xD9, 0x00, 0xAA,
    0x00, 0x62, 0xCE, 0x6C };
constexpr GUID fileProperties { 0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11, 0x8E, 0xE4, 0x00,
    0xC0, 0x0C, 0x20, 0x53, 0x65 };
constexpr GUID streamProperties { 0x91, 0x07, 0xDC, 0xB7, 0xB7, 0xA9, 0xCF, 0x11, 0x8E, 0xE6, 0x00,
    0xC0, 0x0C, 0x20, 0x53, 0x65 };
constexpr GUID videoStream { 0xC0, 0xEF, 0x19, 0xBC, 0x4D, 0x5B, 0xCF, 0x11, 0xA8, 0xFD, 0x00, 0x80,
    0x5F, 0x5C, 0x44, 0x2B };

struct ObjectHeader {
    GUID id;   //  0
    LE64 size; // 16  this header included
};
static_assert(sizeof(ObjectHeader) == 24);

struct HeaderObject {
    ObjectHeader object;                  //  0
    LE32 objects;                         // 24  inside
    std::array<std::uint8_t, 2> reserved; // 28  1, 2
};
static_assert(sizeof(HeaderObject) == 30);

/// The part of the objects inside the header that counts here.
struct FileProperties {
    ObjectHeader object; //  0
    GUID fileID;         // 24
    LE64 fileSize;       // 40
};
static_assert(sizeof(FileProperties) == 48 && offsetof(FileProperties, fileSize) == 40);

constexpr std::uint64_t maxHeaderSize = 67'108'864;
constexpr std::uint64_t minDataSize = 50;
constexpr std::uint32_t maxObjects = 10'000;

/// What the header says of the file.
struct Description {
    std::uint64_t fileSize = 0;
    bool hasVideo = false;
};

Description readHeader(RandomReader& file, const HeaderObject& header)
{
    Description description;
    std::uint64_t position = sizeof header;
    const auto count = std::min<std::uint32_t>(header.objects, maxObjects);
    for (std::uint32_t i = 0; i < count && position < header.object.size; ++i) {
        const auto object = file.load<ObjectHeader>(position);
        if (object.size < sizeof object || object.size > maxHeaderSize)
            break;
        if (object.id == fileProperties)
            description.fileSize = file.load<FileProperties>(position).fileSize;
        if (object.id == streamProperties)
            description.hasVideo |= file.load<GUID>(position + sizeof object) == videoStream;
        position += object.size;
    }
    return description;
}

/// Whether objects fill the file from `position` to its end.
bool isFilled(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    for (std::uint32_t count = 0; count < maxObjects && position < end; ++count) {
        const auto object = file.load<ObjectHeader>(position);
        if (object.size < sizeof object || object.size > end - position)
            return false;
        position += object.size;
    }
    return position == end;
}

} // namespace

Found asf(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<HeaderObject>(0);
    if (header.object.id != headerObject || header.object.size < sizeof header
        || header.object.size > maxHeaderSize)
        return std::nullopt;
    const auto data = file.load<ObjectHeader>(header.object.size);
    if (data.id != dataObject || data.size < minDataSize || data.size > file.size())
        return std::nullopt;
    const auto description = readHeader(file, header);
    const std::uint64_t dataEnd = header.object.size + data.size;
    if (description.fileSize < dataEnd) // a broadcast has no size
        return std::nullopt;
    auto found = candidate.found(description.fileSize, description.hasVideo ? "wmv" : "wma");
    // Indexes behind the data show that it is still there; a file without any proves nothing.
    found.isProved
        = candidate.fits(found.size) && dataEnd < found.size && isFilled(file, dataEnd, found.size);
    return found;
}

} // namespace Formats
