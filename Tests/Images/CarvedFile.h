#pragma once

#include "Tests/Images/DiskImage.h"

#include <string>
#include <string_view>
#include <vector>

/// A file written piece by piece, for kinds and faults that no tool makes.
class Content {
public:
    Content& text(std::string_view text)
    {
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    Content& le(std::uint64_t value, int width)
    {
        bytes_.resize(bytes_.size() + static_cast<std::size_t>(width));
        putLE(bytes_, bytes_.size() - static_cast<std::size_t>(width), value, width);
        return *this;
    }
    Content& be(std::uint64_t value, int width)
    {
        bytes_.resize(bytes_.size() + static_cast<std::size_t>(width));
        putBE(bytes_, bytes_.size() - static_cast<std::size_t>(width), value, width);
        return *this;
    }
    Content& zeros(std::size_t count) { return upTo(bytes_.size() + count); }
    /// Bytes of the same value, up to a size of the whole.
    Content& upTo(std::size_t size, std::uint8_t value = 0)
    {
        bytes_.resize(size, value);
        return *this;
    }
    Content& add(const Bytes& bytes)
    {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }

    operator const Bytes&() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }
    std::unique_ptr<DiskSource> source() const { return makeSource(bytes_); }

private:
    Bytes bytes_;
};

Bytes pngChunk(std::string_view type, std::size_t length);
/// A PNG file with `data` bytes of picture.
Bytes pngFile(std::size_t data = 100);
/// A JPEG file; `segments` go in front of its frame.
Bytes jpegFile(const Bytes& segments = {}, std::size_t data = 300);
/// The APP1 segment of a JPEG file around a TIFF structure.
Bytes exifSegment(const Bytes& tiff);

/// One line of a TIFF directory. A text longer than four bytes lies elsewhere, where `value` says.
struct TIFFEntry {
    std::uint16_t tag, type;
    std::uint32_t count, value;
};

/// A little- or big-endian TIFF file: its header (`magic`, four bytes), a directory at `directory`
/// that links to `next`, and `texts` at their places. It is filled up to `size`.
struct TIFFText {
    std::uint32_t at;
    std::string_view text;
};
Bytes tiffFile(std::string_view magic, const std::vector<TIFFEntry>& entries,
    const std::vector<TIFFText>& texts = {}, std::size_t size = 2048, std::uint32_t directory = 16);

struct ZIPMember {
    std::string name;
    std::string content = "";
    bool hasDescriptor = false; ///< the sizes stand behind the data
};
Bytes zipFile(const std::vector<ZIPMember>& members);

Bytes isoBox(std::string_view type, const Bytes& body = {});
