#include "Tests/Images/HFSPlusImage.h"

#include "Tests/Support/TestSource.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr std::uint32_t treeBytes = 16 * HFSPlusImage::nodeSize;

void put(Bytes& bytes, std::uint64_t at, std::uint64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i)
        bytes.at(at++) = static_cast<std::uint8_t>(value >> 8 * i);
}

void append(Bytes& bytes, std::uint64_t value, int width)
{
    bytes.resize(bytes.size() + static_cast<std::size_t>(width));
    put(bytes, bytes.size() - static_cast<std::size_t>(width), value, width);
}

void putFork(Bytes& bytes, std::uint64_t at, std::uint64_t size, const std::vector<HFSPlusImage::Run>& runs)
{
    put(bytes, at, size, 8);
    std::uint32_t blocks = 0;
    for (const auto& run : runs)
        blocks += run.count;
    put(bytes, at + 12, blocks, 4);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        put(bytes, at + 16 + 8 * i, runs[i].start, 4);
        put(bytes, at + 20 + 8 * i, runs[i].count, 4);
    }
}

Bytes encoded(const HFSPlusImage::Record& record)
{
    Bytes bytes;
    append(bytes, 6 + 2 * record.name.size(), 2);
    append(bytes, record.parent, 4);
    append(bytes, record.name.size(), 2);
    for (const auto unit : record.name)
        append(bytes, unit, 2);
    const auto at = bytes.size();
    bytes.resize(at + (record.isFolder ? 88 : 248));
    put(bytes, at, record.isFolder ? 1 : 2, 2);
    put(bytes, at + 8, record.id, 4);
    put(bytes, at + 16, record.modified, 4);
    put(bytes, at + 41, record.ownerFlags, 1);
    if (record.isFolder)
        return bytes;
    if (record.linkTo != 0) {
        put(bytes, at + 44, record.linkTo, 4);
        put(bytes, at + 48, 0x686C6E6B6866732B, 8);
    }
    putFork(bytes, at + 88, record.size, record.runs);
    putFork(bytes, at + 168, record.resourceSize, {});
    return bytes;
}

/// The record that leads from a file's or folder's ID to its place.
Bytes encodedThread(const HFSPlusImage::Record& record)
{
    Bytes bytes;
    append(bytes, 6, 2);
    append(bytes, record.id, 4);
    append(bytes, 0, 2);
    append(bytes, record.isFolder ? 3 : 4, 2);
    append(bytes, 0, 2);
    append(bytes, record.parent, 4);
    append(bytes, record.name.size(), 2);
    for (const auto unit : record.name)
        append(bytes, unit, 2);
    return bytes;
}

} // namespace

HFSPlusImage::HFSPlusImage(std::uint32_t blocks, bool isHFSX)
    : bytes_(std::size_t { blocks } * blockSize)
{
    put(bytes_, 1024, isHFSX ? 0x48580005 : 0x482B0004, 4);
    put(bytes_, 1024 + 40, blockSize, 4);
    put(bytes_, 1024 + 44, blocks, 4);
    put(bytes_, 1024 + 64, 1000, 4); // the next catalog node ID
    putFork(bytes_, 1024 + 112, blocks / 8, { { allocationBlock, 1 } });
    putFork(bytes_, 1024 + 192, 4 * nodeSize, { { extentsBlock, 8 } });
    putFork(bytes_, 1024 + 272, treeBytes, { { catalogBlock, treeBytes / blockSize } });
    writeTreeHeader(offsetOf(extentsBlock), 1, false);
    writeTreeHeader(offsetOf(catalogBlock), 2, true);
    for (std::uint32_t block = 0; block < firstFree; ++block)
        setAllocated(block, true);
}

void HFSPlusImage::writeTreeHeader(std::uint64_t at, std::uint32_t firstLeaf, bool isCatalog)
{
    put(bytes_, at + 8, 1, 1);
    put(bytes_, at + 16, isCatalog ? 1 : 0, 4);
    put(bytes_, at + 24, firstLeaf, 4);
    put(bytes_, at + 32, nodeSize, 2);
    put(bytes_, at + 10, 3, 2);
    put(bytes_, at + 14, isCatalog ? 2 : 0, 2); // depth: an index node above the leaves
    put(bytes_, at + 34, isCatalog ? 516 : 10, 2);
    put(bytes_, at + 36, isCatalog ? treeBytes / nodeSize : 4, 4);
    put(bytes_, at + 51, isCatalog ? 0xCF : 0, 1);
    put(bytes_, at + 52, isCatalog ? 6 : 2, 4); // long keys, in the index too of varying length
}

void HFSPlusImage::writeNode(std::uint64_t at, std::uint8_t kind, const std::vector<Bytes>& records)
{
    put(bytes_, at + 8, kind, 1);
    put(bytes_, at + 10, records.size(), 2);
    std::uint64_t offset = 14;
    for (std::size_t i = 0; i <= records.size(); ++i) {
        put(bytes_, at + nodeSize - 2 * (i + 1), offset, 2);
        if (i == records.size())
            break;
        write(at + offset, records[i]);
        offset += records[i].size();
    }
    if (offset + 2 * (records.size() + 1) > nodeSize)
        throw std::logic_error("too many records for a node");
}

void HFSPlusImage::setLeaf(std::uint32_t node, const std::vector<Record>& records, const std::vector<Record>& threads)
{
    std::vector<Bytes> all;
    for (const auto& record : threads)
        all.push_back(encodedThread(record));
    for (const auto& record : records)
        all.push_back(encoded(record));
    std::ranges::stable_sort(all, {}, [](const Bytes& record) { return ByteView(record).u32be(2); }); // by parent
    writeNode(nodeOffset(node), 0xFF, all);
}

void HFSPlusImage::chain(const std::vector<std::uint32_t>& nodes)
{
    put(bytes_, nodeOffset(0) + 24, nodes.front(), 4);
    std::vector<Bytes> index;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        put(bytes_, nodeOffset(nodes[i]), i + 1 < nodes.size() ? nodes[i + 1] : 0, 4);
        index.push_back({ 0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(nodes[i]) });
    }
    writeNode(nodeOffset(1), 0x00, index);
}

void HFSPlusImage::addOverflow(std::uint32_t fileID, std::uint32_t startBlock, const std::vector<Run>& runs)
{
    Bytes record;
    append(record, 10, 2);
    append(record, 0, 2);
    append(record, fileID, 4);
    append(record, startBlock, 4);
    record.resize(12 + 64);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        put(record, 12 + 8 * i, runs[i].start, 4);
        put(record, 16 + 8 * i, runs[i].count, 4);
    }
    overflow_.push_back(record);
    put(bytes_, offsetOf(extentsBlock) + 16, 1, 4);
    writeNode(offsetOf(extentsBlock) + nodeSize, 0xFF, overflow_);
}

void HFSPlusImage::setAllocated(std::uint32_t block, bool isAllocated)
{
    auto& byte = bytes_.at(offsetOf(allocationBlock) + block / 8);
    const auto bit = static_cast<std::uint8_t>(0x80 >> block % 8);
    byte = static_cast<std::uint8_t>(isAllocated ? byte | bit : byte & ~bit);
}

void HFSPlusImage::write(std::uint64_t offset, const Bytes& content)
{
    for (const auto byte : content)
        bytes_.at(offset++) = byte;
}

std::unique_ptr<DiskSource> HFSPlusImage::source() const { return makeSource(bytes_); }
