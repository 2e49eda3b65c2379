#include "Tests/Images/HFSPlusImage.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr std::uint32_t catalogNodes = 16;
constexpr std::uint32_t extentsNodes = 4;
constexpr std::uint32_t attributesNodes = 8;

void append(Bytes& bytes, std::uint64_t value, int width)
{
    bytes.resize(bytes.size() + static_cast<std::size_t>(width));
    putBE(bytes, bytes.size() - static_cast<std::size_t>(width), value, width);
}

void appendName(Bytes& bytes, const std::u16string& name)
{
    append(bytes, name.size(), 2);
    for (const auto unit : name)
        append(bytes, unit, 2);
}

void putExtents(Bytes& bytes, std::uint64_t at, const std::vector<HFSPlusImage::Extent>& extents)
{
    for (const auto& [start, count] : extents) {
        putBE(bytes, at, start, 4);
        putBE(bytes, at + 4, count, 4);
        at += 8;
    }
}

void putFork(Bytes& bytes, std::uint64_t at, std::uint64_t size,
    const std::vector<HFSPlusImage::Extent>& extents)
{
    std::uint32_t count = 0;
    for (const auto& extent : extents)
        count += extent.count;
    putBE(bytes, at, size, 8);
    putBE(bytes, at + 12, count, 4);
    putExtents(bytes, at + 16, extents);
}

Bytes encoded(const HFSPlusImage::Record& record)
{
    Bytes bytes;
    append(bytes, 6 + 2 * record.name.size(), 2);
    append(bytes, record.parent, 4);
    appendName(bytes, record.name);
    const auto at = bytes.size();
    bytes.resize(at + (record.isFolder ? 88 : 248));
    putBE(bytes, at, record.isFolder ? 1 : 2, 2);
    putBE(bytes, at + 8, record.id, 4);
    putBE(bytes, at + 16, record.modified, 4);
    putBE(bytes, at + 41, record.ownerFlags, 1);
    std::ranges::copy(record.finderInfo, bytes.begin() + static_cast<std::ptrdiff_t>(at) + 48);
    if (record.isFolder)
        return bytes;
    if (record.linkTo != 0) {
        putBE(bytes, at + 44, record.linkTo, 4);
        putBE(bytes, at + 48, record.isFolderLink ? 0x666472704D414353 : 0x686C6E6B6866732B, 8);
    }
    putFork(bytes, at + 88, record.size, record.runs);
    putFork(bytes, at + 168, record.resourceSize, record.resourceRuns);
    return bytes;
}

/// The thread record of a file or folder: its parent and name, by its ID.
Bytes encodedThread(const HFSPlusImage::Record& record)
{
    Bytes bytes;
    append(bytes, 6, 2);
    append(bytes, record.id, 4);
    append(bytes, 0, 2);
    append(bytes, record.isFolder ? 3 : 4, 2);
    append(bytes, record.parent, 6);
    appendName(bytes, record.name);
    return bytes;
}

Bytes encodedAttribute(const HFSPlusImage::Attribute& attribute)
{
    Bytes bytes;
    append(bytes, 12 + 2 * attribute.name.size(), 2);
    append(bytes, attribute.fileID, 6);
    append(bytes, attribute.startBlock, 4);
    appendName(bytes, attribute.name);
    const auto at = bytes.size();
    if (attribute.size == 0 && attribute.startBlock == 0) {
        append(bytes, 0x10, 4);
        append(bytes, 0, 8);
        append(bytes, attribute.content.size(), 4);
        bytes.insert(bytes.end(), attribute.content.begin(), attribute.content.end());
        bytes.resize(bytes.size() + bytes.size() % 2);
        return bytes;
    }
    const bool isFirst = attribute.startBlock == 0;
    bytes.resize(at + (isFirst ? 88 : 72));
    putBE(bytes, at, isFirst ? 0x20 : 0x30, 4);
    if (isFirst)
        putFork(bytes, at + 8, attribute.size, attribute.runs);
    else
        putExtents(bytes, at + 8, attribute.runs);
    return bytes;
}

} // namespace

HFSPlusImage::HFSPlusImage(bool isHFSX, std::uint32_t blocks)
{
    bytes_.resize(blocks * blockSize);
    putBE(bytes_, 1024, isHFSX ? 0x48580005 : 0x482B0004, 4);
    putBE(bytes_, 1024 + 40, blockSize, 4);
    putBE(bytes_, 1024 + 44, blocks, 4);
    putBE(bytes_, 1024 + 64, 1000, 4); // the next catalog node ID
    putFork(bytes_, 1024 + 112, blocks / 8, { { allocationBlock, (blocks + 4095) / 4096 } });
    putFork(bytes_, 1024 + 192, extentsNodes * nodeSize, { { extentsBlock, 2 * extentsNodes } });
    putFork(bytes_, 1024 + 272, catalogNodes * nodeSize, { { catalogBlock, 2 * catalogNodes } });
    for (const auto at : { offsetOf(extentsBlock), nodeOffset(0) }) {
        const bool isCatalog = at == nodeOffset(0);
        putBE(bytes_, at + 8, 1, 1);
        putBE(bytes_, at + 10, 3, 2);
        putBE(bytes_, at + 14, isCatalog ? 2 : 0, 2); // depth: an index node above the leaves
        putBE(bytes_, at + 16, isCatalog ? 1 : 0, 4);
        putBE(bytes_, at + 24, isCatalog ? 2 : 1, 4);
        putBE(bytes_, at + 32, nodeSize, 2);
        putBE(bytes_, at + 34, isCatalog ? 516 : 10, 2);
        putBE(bytes_, at + 36, isCatalog ? catalogNodes : extentsNodes, 4);
        putBE(bytes_, at + 51, isCatalog ? 0xCF : 0, 1);
        putBE(
            bytes_, at + 52, isCatalog ? 6 : 2, 4); // long keys, in the index too of varying length
    }
    for (std::uint32_t block = 0; block < 96; ++block)
        setAllocated(block);
}

void HFSPlusImage::writeNode(std::uint64_t at, std::uint8_t kind, const std::vector<Bytes>& records)
{
    putBE(bytes_, at + 8, kind, 1);
    putBE(bytes_, at + 9, kind == 0xFF ? 1 : 2, 1); // the height: the index lies above the leaves
    putBE(bytes_, at + 10, records.size(), 2);
    std::uint64_t offset = 14;
    auto slot = at + nodeSize
        - 2; // of the record's offset; they stand backwards, and the last is the end's
    for (const auto& record : records) {
        putBE(bytes_, slot, offset, 2);
        write(at + offset, record);
        offset += record.size();
        slot -= 2;
    }
    putBE(bytes_, slot, offset, 2);
    if (at + offset > slot)
        throw std::logic_error("too many records for a node");
}

void HFSPlusImage::setLeaf(
    std::uint32_t node, const std::vector<Record>& records, const std::vector<Record>& threads)
{
    std::vector<Bytes> all;
    std::ranges::transform(threads, std::back_inserter(all), encodedThread);
    std::ranges::transform(records, std::back_inserter(all), encoded);
    std::ranges::stable_sort(
        all, {}, [](const Bytes& record) { return ByteView(record).u32be(2); }); // by parent
    writeNode(nodeOffset(node), 0xFF, all);
}

void HFSPlusImage::chain(const std::vector<std::uint8_t>& nodes)
{
    std::vector<Bytes> index;
    std::uint64_t link = nodeOffset(0) + 24;
    for (const auto node : nodes) {
        putBE(bytes_, link, node, 4);
        link = nodeOffset(node);
        index.push_back({ 0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, node });
    }
    putBE(bytes_, link, 0, 4);
    writeNode(nodeOffset(1), 0x00, index);
}

void HFSPlusImage::stateLeaves(const std::vector<std::uint8_t>& nodes)
{
    constexpr std::uint64_t mapOffset = 248; // behind the header record and a reserved one
    std::uint64_t records = 0;
    std::uint64_t used = 0xC000; // the header and the index
    for (const auto node : nodes) {
        records += ByteView(bytes_).u16be(static_cast<std::int64_t>(nodeOffset(node) + 10));
        used |= 0x8000u >> node;
    }
    const auto at = nodeOffset(0);
    putBE(bytes_, at + 20, records, 4);
    putBE(bytes_, at + 28, nodes.back(), 4);
    putBE(bytes_, at + mapOffset, used, 2);
    auto slot = at + nodeSize - 2;
    for (const std::uint64_t offset :
        { std::uint64_t { 14 }, std::uint64_t { 120 }, mapOffset, nodeSize - 8 }) {
        putBE(bytes_, slot, offset, 2);
        slot -= 2;
    }
}

void HFSPlusImage::addOverflow(std::uint32_t fileID, std::uint32_t startBlock,
    const std::vector<Extent>& extents, bool isResourceFork)
{
    Bytes record;
    append(record, 10, 2);
    append(record, isResourceFork ? 0xFF00 : 0, 2);
    append(record, fileID, 4);
    append(record, startBlock, 4);
    record.resize(12 + 64);
    putExtents(record, 12, extents);
    overflow_.push_back(record);
    putBE(bytes_, offsetOf(extentsBlock) + 16, 1, 4);
    writeNode(offsetOf(extentsBlock) + nodeSize, 0xFF, overflow_);
}

void HFSPlusImage::setAttributes(const std::vector<Attribute>& attributes, std::uint32_t node)
{
    putFork(bytes_, 1024 + 352, attributesNodes * nodeSize,
        { { attributesBlock, 2 * attributesNodes } });
    const auto at = attributesOffset(0);
    putBE(bytes_, at + 8, 1, 1);
    putBE(bytes_, at + 10, 3, 2);
    for (const auto field : { 16, 24, 28 }) // root, first and last leaf
        putBE(bytes_, at + static_cast<std::uint64_t>(field), 1, 4);
    putBE(bytes_, at + 14, 1, 2); // depth
    putBE(bytes_, at + 32, nodeSize, 2);
    putBE(bytes_, at + 34, 266, 2);
    putBE(bytes_, at + 36, attributesNodes, 4);
    std::vector<Bytes> records;
    for (const auto& attribute : attributes)
        records.push_back(encodedAttribute(attribute));
    if (node == 1)
        putBE(bytes_, at + 20, records.size(), 4);
    writeNode(attributesOffset(node), 0xFF, records);
}

void HFSPlusImage::setAllocated(std::uint32_t block)
{
    auto& byte = bytes_.at(offsetOf(allocationBlock) + block / 8);
    byte = static_cast<std::uint8_t>(byte | 0x80 >> block % 8);
}
