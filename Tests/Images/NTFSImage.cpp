#include "Tests/Images/NTFSImage.h"

#include <algorithm>
#include <stdexcept>

namespace {

void putText(Bytes& bytes, std::uint64_t at, std::string_view text)
{
    for (const char character : text)
        bytes.at(at++) = static_cast<std::uint8_t>(character);
}

void putReference(Bytes& bytes, std::uint64_t at, FileReference reference)
{
    putLE(bytes, at, reference.number, 6);
    putLE(bytes, at + 6, reference.sequence, 2);
}

void putUTF16(Bytes& bytes, std::uint64_t at, std::u16string_view text)
{
    for (const auto unit : text) {
        putLE(bytes, at, unit, 2);
        at += 2;
    }
}

std::size_t aligned(std::size_t size) { return (size + 7) / 8 * 8; }

/// Bytes that a number takes; signed ones need room for their sign.
int widthOf(std::int64_t value, bool isSigned)
{
    int width = 1;
    while (width < 8) {
        const std::int64_t limit = std::int64_t { 1 } << (8 * width - (isSigned ? 1 : 0));
        if (value < limit && value >= (isSigned ? -limit : 0))
            break;
        ++width;
    }
    return width;
}

/// The value of a resident attribute.
Bytes attributeValue(const Bytes& attribute)
{
    const auto value = ByteView(attribute).sub(24, ByteView(attribute).u32le(16)).span();
    return { value.begin(), value.end() };
}

/// Writes an update sequence to byte `offset` and to the ends of the sectors.
void protect(Bytes& bytes, std::uint64_t offset)
{
    const std::uint64_t updateNumber = 0x1234;
    putLE(bytes, offset, updateNumber, 2);
    for (std::uint64_t end = 510; end < bytes.size(); end += 512) {
        offset += 2;
        putLE(bytes, offset, ByteView(bytes).u16le(static_cast<std::int64_t>(end)), 2);
        putLE(bytes, end, updateNumber, 2);
    }
}

} // namespace

NTFSImage::NTFSImage(Options options)
    : options_(std::move(options))
{
    bytes_.resize(std::size_t { options_.clusters } * options_.clusterSize);
    const std::uint64_t clusterSize = options_.clusterSize;
    const std::uint64_t mftSize = std::uint64_t { options_.records } * options_.recordSize;
    const std::uint64_t bitmapSize = (options_.clusters + 7) / 8;
    if (options_.mft.empty())
        options_.mft = { { 16, (mftSize + clusterSize - 1) / clusterSize } };
    for (const auto& run : options_.mft)
        nextCluster_ = std::max(nextCluster_, run.lcn.value_or(0) + run.clusters);
    mirrorLCN_ = options_.clusters
        - (std::uint64_t { options_.recordSize } + clusterSize - 1) / clusterSize;
    bitmapLCN_ = nextCluster_;
    nextCluster_ += (bitmapSize + clusterSize - 1) / clusterSize;
    markUsed(0, nextCluster_);

    putText(bytes_, 3, "NTFS    ");
    putLE(bytes_, 11, 512, 2);
    putLE(bytes_, 13, clusterSize / 512, 1);
    putLE(bytes_, 40, bytes_.size() / 512, 8);
    putLE(bytes_, 48, mftLCN(), 8);
    putLE(bytes_, 56, mirrorLCN_, 8);
    int power = 0;
    while (options_.recordSize >> power > 1)
        ++power;
    putLE(bytes_, 64, static_cast<std::uint64_t>(-power), 1);
    putLE(bytes_, 510, 0xAA55, 2);

    std::uint64_t mftClusters = 0;
    for (const auto& run : options_.mft)
        mftClusters += run.clusters;
    put(0,
        { .attributes = { standardInformation(), fileName(root, u"$MFT", 3),
              data(Data { .runs = options_.mft,
                  .size = mftSize,
                  .allocated = mftClusters * clusterSize }) } });
    Bytes label(options_.label.size() * 2);
    putUTF16(label, 0, options_.label);
    put(3,
        { .sequence = 3, .attributes = { fileName(root, u"$Volume", 3), attribute(0x60, label) } });
    put(5,
        { .isDirectory = true,
            .sequence = 5,
            .attributes = { standardInformation(), fileName(root, u".", 3) } });
    put(6,
        { .sequence = 6,
            .attributes = { fileName(root, u"$Bitmap", 3),
                data(
                    Data { .runs = { { bitmapLCN_, (bitmapSize + clusterSize - 1) / clusterSize } },
                        .size = bitmapSize }) } });
    putFolder(11, root, u"$Extend", true, 11);
}

Bytes NTFSImage::attribute(std::uint32_t type, const Bytes& value, std::uint16_t flags)
{
    Bytes bytes(aligned(24 + value.size()));
    putLE(bytes, 0, type, 4);
    putLE(bytes, 4, bytes.size(), 4);
    putLE(bytes, 12, flags, 2);
    putLE(bytes, 16, value.size(), 4);
    putLE(bytes, 20, 24, 2);
    std::ranges::copy(value, bytes.begin() + 24);
    return bytes;
}

Bytes NTFSImage::standardInformation(
    std::uint64_t created, std::uint64_t modified, std::uint64_t changed)
{
    Bytes value(48);
    putLE(value, 0, created, 8);
    putLE(value, 8, modified, 8);
    putLE(value, 16, changed, 8);
    return attribute(0x10, value);
}

Bytes NTFSImage::fileName(
    FileReference parent, std::u16string_view name, std::uint8_t nameSpace, std::uint64_t realSize)
{
    Bytes value(66 + 2 * name.size());
    putReference(value, 0, parent);
    putLE(value, 8, creation + 10'000'000, 8);
    putLE(value, 16, modification + 10'000'000, 8);
    putLE(value, 48, realSize, 8);
    putLE(value, 64, name.size(), 1);
    putLE(value, 65, nameSpace, 1);
    putUTF16(value, 66, name);
    return attribute(0x30, value);
}

Bytes NTFSImage::nonResident(std::uint32_t type, const Data& data)
{
    const auto runs = encode(data.runs);
    Bytes bytes(aligned(64 + runs.size()));
    putLE(bytes, 0, type, 4);
    putLE(bytes, 4, bytes.size(), 4);
    putLE(bytes, 8, 1, 1);
    putLE(bytes, 12, data.flags, 2);
    putLE(bytes, 16, data.startVCN, 8);
    putLE(bytes, 32, 64, 2);
    putLE(bytes, 34, data.compressionUnit, 1);
    putLE(bytes, 40, data.allocated, 8);
    putLE(bytes, 48, data.size, 8);
    putLE(bytes, 56, data.initSize.value_or(data.size), 8);
    std::ranges::copy(runs, bytes.begin() + 64);
    return bytes;
}

Bytes NTFSImage::withName(Bytes attribute, std::u16string_view name)
{
    const auto nameOffset = attribute.size();
    attribute.resize(aligned(nameOffset + 2 * name.size()));
    putLE(attribute, 4, attribute.size(), 4);
    putLE(attribute, 9, name.size(), 1);
    putLE(attribute, 10, nameOffset, 2);
    putUTF16(attribute, nameOffset, name);
    return attribute;
}

Bytes NTFSImage::listContent(const std::vector<ListEntry>& entries)
{
    Bytes list(entries.size() * 32);
    std::uint64_t at = 0;
    for (const auto& entry : entries) {
        putLE(list, at, entry.type, 4);
        putLE(list, at + 4, 32, 2);
        putLE(list, at + 7, 26, 1);
        putLE(list, at + 8, entry.startVCN, 8);
        putReference(list, at + 16, entry.record);
        at += 32;
    }
    return list;
}

Bytes NTFSImage::encode(const Runs& runs)
{
    Bytes bytes;
    const auto append = [&](std::int64_t value, int width) {
        for (int i = 0; i < width; ++i)
            bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
    };
    std::int64_t previous = 0;
    for (const auto& run : runs) {
        const auto clusters = static_cast<std::int64_t>(run.clusters);
        const auto lcn = static_cast<std::int64_t>(run.lcn.value_or(0));
        const int lengthWidth = widthOf(clusters, false);
        const int offsetWidth = run.lcn ? widthOf(lcn - previous, true) : 0;
        append(offsetWidth << 4 | lengthWidth, 1);
        append(clusters, lengthWidth);
        append(lcn - previous, offsetWidth);
        previous = run.lcn ? lcn : previous;
    }
    bytes.push_back(0);
    return bytes;
}

Bytes NTFSImage::indexBlock(const std::vector<IndexEntry>& entries, std::size_t removed)
{
    constexpr std::uint64_t first = 64;
    Bytes bytes(4096);
    putText(bytes, 0, "INDX");
    putLE(bytes, 4, 40, 2);
    putLE(bytes, 6, bytes.size() / 512 + 1, 2);
    putLE(bytes, 24, first - 24, 4);
    std::uint64_t at = first;
    for (std::size_t i = 0; i <= entries.size(); ++i) {
        if (i + removed == entries.size()) {
            putLE(bytes, at + 8, 16, 2);
            putLE(bytes, at + 12, 2, 2); // the last entry
            at += 16;
            putLE(bytes, 28, at - 24, 4);
        }
        if (i == entries.size())
            break;
        const auto& entry = entries[i];
        const auto name = attributeValue(fileName(entry.folder, entry.name, entry.nameSpace));
        putReference(bytes, at, entry.file);
        putLE(bytes, at + 8, aligned(16 + name.size()), 2);
        putLE(bytes, at + 10, name.size(), 2);
        std::ranges::copy(name, bytes.begin() + static_cast<std::ptrdiff_t>(at + 16));
        at += aligned(16 + name.size());
    }
    protect(bytes, 40);
    return bytes;
}

Bytes NTFSImage::journalEntry(
    std::uint16_t version, FileReference file, FileReference parent, std::u16string_view name)
{
    const std::uint64_t wide = version == 3 ? 8 : 0; // what each reference takes more
    const std::uint64_t nameAt = 60 + 2 * wide;
    Bytes bytes(aligned(nameAt + 2 * name.size()));
    putLE(bytes, 0, bytes.size(), 4);
    putLE(bytes, 4, version, 2);
    putReference(bytes, 8, file);
    putReference(bytes, 16 + wide, parent);
    putLE(bytes, nameAt - 4, 2 * name.size(), 2);
    putLE(bytes, nameAt - 2, nameAt, 2);
    putUTF16(bytes, nameAt, name);
    return bytes;
}

Bytes NTFSImage::encodeRecord(std::uint64_t number, const Record& record) const
{
    Bytes bytes(options_.recordSize);
    const std::uint64_t sectors = options_.recordSize / 512;
    std::size_t at = aligned(48 + 2 * (sectors + 1));
    putText(bytes, 0, "FILE");
    putLE(bytes, 4, 48, 2);
    putLE(bytes, 6, sectors + 1, 2);
    putLE(bytes, 8, record.logSequence, 8);
    putLE(bytes, 16, record.sequence, 2);
    putLE(bytes, 20, at, 2);
    putLE(bytes, 22, (record.inUse ? 1u : 0u) | (record.isDirectory ? 2u : 0u), 2);
    putLE(bytes, 28, options_.recordSize, 4);
    putReference(bytes, 32, record.base);
    putLE(bytes, 44, number, 4);
    for (const auto& attribute : record.attributes) {
        if (at + attribute.size() + 8 > bytes.size())
            throw std::logic_error("too much for record " + std::to_string(number));
        std::ranges::copy(attribute, bytes.begin() + static_cast<std::ptrdiff_t>(at));
        at += attribute.size();
    }
    putLE(bytes, at, 0xFFFFFFFF, 4);
    putLE(bytes, 24, at + 8, 4);

    protect(bytes, 48);
    return bytes;
}

void NTFSImage::put(std::uint64_t number, const Record& record)
{
    const auto bytes = encodeRecord(number, record);
    // By sectors: clusters smaller than the record may lie anywhere.
    for (std::size_t at = 0; at < bytes.size(); at += 512)
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), 512,
            bytes_.begin() + static_cast<std::ptrdiff_t>(recordOffset(number, at)));
    if (number == 0)
        write(offsetOf(mirrorLCN_), bytes);
}

void NTFSImage::putFile(std::uint64_t number, FileReference parent, std::u16string_view name,
    const Bytes& content, bool inUse, std::uint16_t sequence)
{
    const std::uint64_t clusterSize = options_.clusterSize;
    const auto stored = content.size() <= 300
        ? data(content)
        : data(Data { .runs = store(content, inUse),
            .size = content.size(),
            .allocated = (content.size() + clusterSize - 1) / clusterSize * clusterSize });
    put(number,
        { .inUse = inUse,
            .sequence = sequence,
            .attributes = { standardInformation(), fileName(parent, name), stored } });
}

void NTFSImage::putFolder(std::uint64_t number, FileReference parent, std::u16string_view name,
    bool inUse, std::uint16_t sequence)
{
    put(number,
        { .inUse = inUse,
            .isDirectory = true,
            .sequence = sequence,
            .attributes = { standardInformation(), fileName(parent, name) } });
}

NTFSImage::Runs NTFSImage::store(const Bytes& content, bool isUsed)
{
    const std::uint64_t first = nextCluster_;
    const std::uint64_t count = (content.size() + options_.clusterSize - 1) / options_.clusterSize;
    nextCluster_ += count;
    write(offsetOf(first), content);
    markUsed(first, count, isUsed);
    return { { first, count } };
}

void NTFSImage::markUsed(std::uint64_t lcn, std::uint64_t count, bool isUsed)
{
    for (std::uint64_t cluster = lcn; cluster < lcn + count; ++cluster) {
        auto& byte = bytes_.at(offsetOf(bitmapLCN_) + cluster / 8);
        const auto bit = static_cast<std::uint8_t>(1 << cluster % 8);
        byte = static_cast<std::uint8_t>(isUsed ? byte | bit : byte & ~bit);
    }
}

std::uint64_t NTFSImage::recordOffset(std::uint64_t number, std::uint64_t at) const
{
    std::uint64_t position = number * options_.recordSize + at;
    for (const auto& run : options_.mft) {
        const std::uint64_t length = run.clusters * options_.clusterSize;
        if (position < length)
            return offsetOf(run.lcn.value()) + position;
        position -= length;
    }
    throw std::logic_error("the MFT has no record " + std::to_string(number));
}

std::vector<std::uint64_t> NTFSImage::recordOffsets(std::uint64_t from) const
{
    std::vector<std::uint64_t> offsets;
    for (std::uint64_t number = from; number < options_.records; ++number)
        if (ByteView(bytes_).matches("FILE", static_cast<std::int64_t>(recordOffset(number))))
            offsets.push_back(recordOffset(number));
    return offsets;
}
