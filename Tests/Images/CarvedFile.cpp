#include "Tests/Images/CarvedFile.h"

Bytes pngChunk(std::string_view type, std::size_t length)
{
    return Content().be(length, 4).text(type).add(patternBytes(length)).zeros(4);
}

Bytes pngFile(std::size_t data)
{
    return Content()
        .text("\x89PNG\r\n\x1A\n")
        .add(pngChunk("IHDR", 13))
        .add(pngChunk("IDAT", data))
        .add(pngChunk("IEND", 0));
}

Bytes jpegFile(const Bytes& segments, std::size_t data)
{
    return Content()
        .be(0xFFD8, 2)
        .add(segments)
        .add(Content().be(0xFFC0, 2).be(8, 2).text("frame."))
        .add(Content().be(0xFFDA, 2).be(4, 2).text("sc"))
        .add(Bytes(data, 0x55))
        .be(0xFF00, 2) // stuffing, a restart and padding in front of the end
        .be(0xFFD3, 2)
        .be(0xFFFFD9, 3);
}

Bytes exifSegment(const Bytes& tiff)
{
    return Content().be(0xFFE1, 2).be(tiff.size() + 8, 2).text("Exif").zeros(2).add(tiff);
}

Bytes tiffFile(std::string_view magic, const std::vector<TIFFEntry>& entries,
    const std::vector<TIFFText>& texts, std::size_t size, std::uint32_t directory)
{
    const auto put = magic[0] == 'I' ? putLE : putBE;
    Bytes bytes(size);
    for (std::size_t i = 0; i < magic.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(magic[i]);
    put(bytes, 4, directory, 4);
    std::uint64_t at = directory;
    put(bytes, at, entries.size(), 2);
    at += 2;
    for (const auto& entry : entries) {
        put(bytes, at, entry.tag, 2);
        put(bytes, at + 2, entry.type, 2);
        put(bytes, at + 4, entry.count, 4);
        put(bytes, at + 8, entry.value, 4);
        at += 12;
    }
    for (const auto& [place, text] : texts)
        std::copy(text.begin(), text.end(), bytes.begin() + place);
    return bytes;
}

Bytes zipFile(const std::vector<ZIPMember>& members)
{
    Content file, directory;
    for (const auto& [name, content, hasDescriptor] : members) {
        const auto size = content.size();
        const auto offset = file.size();
        file.text("PK\x03\x04").le(20, 2).le(hasDescriptor ? 8 : 0, 2).zeros(10);
        file.le(hasDescriptor ? 0 : size, 4)
            .le(hasDescriptor ? 0 : size, 4)
            .le(name.size(), 2)
            .zeros(2);
        file.text(name).text(content);
        if (hasDescriptor)
            file.text("PK\x07\x08").zeros(4).le(size, 4).le(size, 4);
        directory.text("PK\x01\x02")
            .zeros(16)
            .le(size, 4)
            .le(size, 4)
            .le(name.size(), 2)
            .zeros(12)
            .le(offset, 4);
        directory.text(name);
    }
    const Bytes records = directory;
    const auto offset = file.size();
    return file.add(records)
        .text("PK\x05\x06")
        .zeros(8)
        .le(records.size(), 4)
        .le(offset, 4)
        .zeros(2);
}

Bytes isoBox(std::string_view type, const Bytes& body)
{
    return Content().be(body.size() + 8, 4).text(type).add(body);
}
