#include "Tests/Images/APFSImage.h"

#include "VintrelCore/FileSystems/APFS/Parser.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr std::uint64_t descriptorBase = 1;
constexpr std::uint64_t dataBase = descriptorBase + APFSImage::descriptorBlocks;
constexpr std::uint64_t dataBlocks
    = APFSImage::descriptorBlocks; // a space manager and a queue for each checkpoint
constexpr std::uint64_t chunkInfoBlock = APFSImage::bitmapBlock + 1;
constexpr std::uint64_t firstFree = chunkInfoBlock + 1;
constexpr std::uint64_t firstIndexOID = 100'000;
constexpr std::uint64_t oidsPerVolume = 10'000;
constexpr std::uint64_t bytesPerChild = 81; ///< of an index node, generously
constexpr std::uint32_t physical = 0x40000000, ephemeral = 0x80000000;

/// A key or value, written field by field.
struct Fields {
    Bytes bytes {};

    Fields& add(std::uint64_t value, int width)
    {
        bytes.resize(bytes.size() + static_cast<std::size_t>(width));
        putLE(bytes, bytes.size() - static_cast<std::size_t>(width), value, width);
        return *this;
    }
    Fields& add(std::string_view text)
    {
        bytes.insert(bytes.end(), text.begin(), text.end());
        return *this;
    }
    Fields& zeros(std::size_t count)
    {
        bytes.resize(bytes.size() + count);
        return *this;
    }
    Fields& name(std::string_view text) { return add(text.size() + 1, 2).add(text).add(0, 1); }
};

Fields key(std::uint64_t id, std::uint64_t kind) { return Fields().add(id | kind << 60, 8); }

/// Sorts by object, then by kind, then by number or hash, then by name.
void sort(APFSImage::Leaf& records)
{
    std::ranges::stable_sort(records, {}, [](const APFSImage::Record& record) {
        const ByteView key(record.key);
        const auto number = key.u64le(0);
        const bool isName = number >> 60 == 4 || number >> 60 == 9;
        return std::tuple(number << 4 >> 4, number >> 60, isName ? key.u16le(8) : key.u64le(8),
            Bytes(record.key.begin() + static_cast<std::ptrdiff_t>(isName ? 10 : 8),
                record.key.end()));
    });
}

} // namespace

APFSImage::APFSImage(Options options)
    : options_(std::move(options))
    , nextFree_(firstFree)
    , allocated_(options_.blocks)
    , volumes_(options_.volumes)
{
    bytes_.resize(offsetOf(options_.blocks));
    std::fill_n(allocated_.begin(), firstFree, true);
}

APFSImage::Record APFSImage::inode(const Inode& inode)
{
    Fields value;
    value.add(inode.parent, 8).add(inode.privateID != 0 ? inode.privateID : inode.id, 8);
    for (const std::uint64_t later : { 0u, 1u, 1u, 1u })
        value.add(inode.created + later * 1'000'000'000, 8);
    value.add(0x8000 | (inode.isSparse ? 0x200u : 0u) | (inode.isCloned ? 0x410u : 0u), 8)
        .add(1, 4)
        .add(0, 4)
        .add(0, 4)
        .add(inode.bsdFlags, 4);
    value.add(99, 4).add(99, 4).add(inode.mode, 2).zeros(10);
    const bool hasStream = (inode.mode & 0xF000) == 0x8000 && inode.bsdFlags == 0;
    const std::size_t nameSize = inode.name.size() + 1;
    value.add(hasStream ? 2 : 1, 2).add((nameSize + 7) / 8 * 8 + (hasStream ? 40 : 0), 2);
    value.add(0x0204, 2).add(nameSize, 2);
    if (hasStream)
        value.add(0x2008, 2).add(40, 2);
    value.add(inode.name).zeros(8 - inode.name.size() % 8);
    if (hasStream)
        value.add(inode.size, 8)
            .add((inode.size + blockSize - 1) / blockSize * blockSize, 8)
            .zeros(24);
    return { key(inode.id, 3).bytes, value.bytes };
}

APFSImage::Record APFSImage::entry(
    std::uint64_t parent, const std::string& name, std::uint64_t id, bool isFolder) const
{
    auto named = key(parent, 9);
    if (options_.isHashed)
        named.add((name.size() + 1) | 0x5A5A5400, 4).add(name).add(0, 1);
    else
        named.name(name);
    return { named.bytes, Fields().add(id, 8).add(1, 8).add(isFolder ? 4 : 8, 2).bytes };
}

APFSImage::Record APFSImage::extent(
    std::uint64_t owner, std::uint64_t logical, std::uint64_t length, std::uint64_t block)
{
    return { key(owner, 8).add(logical, 8).bytes,
        Fields().add(length, 8).add(block, 8).add(0, 8).bytes };
}

APFSImage::Record APFSImage::sibling(
    std::uint64_t id, std::uint64_t siblingID, std::uint64_t parent, const std::string& name)
{
    return { key(id, 5).add(siblingID, 8).bytes, Fields().add(parent, 8).name(name).bytes };
}

APFSImage::Record APFSImage::attribute(
    std::uint64_t id, const std::string& name, std::string_view content)
{
    return { key(id, 4).name(name).bytes,
        Fields().add(2, 2).add(content.size(), 2).add(content).bytes };
}

APFSImage::Record APFSImage::attributeStream(
    std::uint64_t id, const std::string& name, std::uint64_t owner, std::uint64_t size)
{
    return { key(id, 4).name(name).bytes,
        Fields().add(1, 2).add(48, 2).add(owner, 8).add(size, 8).zeros(32).bytes };
}

APFSImage::Leaf APFSImage::file(const Inode& file, std::uint64_t block) const
{
    Leaf leaf { entry(file.parent, file.name, file.id), inode(file) };
    if (block != 0)
        leaf.push_back(
            extent(file.id, 0, (file.size + blockSize - 1) / blockSize * blockSize, block));
    return leaf;
}

APFSImage::Leaf APFSImage::folder(
    std::uint64_t id, std::uint64_t parent, const std::string& name) const
{
    return { entry(parent, name, id, true),
        inode({ .id = id, .parent = parent, .name = name, .mode = 0x41ED }) };
}

std::uint64_t APFSImage::allocate(std::uint64_t count)
{
    const auto first = nextFree_;
    nextFree_ += count;
    for (auto block = first; block < nextFree_; ++block)
        setAllocated(block);
    return first;
}

std::uint64_t APFSImage::store(const Bytes& content)
{
    const auto block = allocate((content.size() + options_.blockBytes - 1) / options_.blockBytes);
    write(offsetOf(block), content);
    return block;
}

void APFSImage::put(std::uint64_t block, std::initializer_list<Field> fields)
{
    for (const auto& [at, value, width] : fields)
        putLE(bytes_, offsetOf(block) + at, value, width);
}

void APFSImage::header(
    std::uint64_t block, std::uint64_t oid, std::uint32_t type, std::uint32_t subtype)
{
    std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offsetOf(block)), options_.blockBytes,
        std::uint8_t { 0 });
    put(block, { { 8, oid, 8 }, { 16, xid_, 8 }, { 24, type, 4 }, { 28, subtype, 4 } });
}

void APFSImage::sign(std::uint64_t block, std::uint64_t count)
{
    const auto object = ByteView(bytes_).sub(static_cast<std::int64_t>(offsetOf(block)),
        static_cast<std::int64_t>(count * options_.blockBytes));
    put(block, { { 0, APFSParser::fletcher64(object), 8 } });
}

void APFSImage::renewChecksums()
{
    for (std::uint64_t block = 0; offsetOf(block + 1) <= bytes_.size(); ++block)
        if (ByteView(bytes_).u64le(static_cast<std::int64_t>(offsetOf(block))) != 0
            && block != bitmapBlock)
            sign(block);
}

void APFSImage::writeNode(std::uint64_t block, std::uint64_t oid, std::uint32_t storage,
    const NodeKind& kind, const std::vector<Record>& records)
{
    header(block, oid, storage | (kind.isRoot ? 2 : 3), kind.subtype);
    const bool isFixed = kind.fixedKey != 0;
    const std::uint64_t tableSize = std::max<std::uint64_t>(records.size(), 8) * (isFixed ? 4 : 8);
    put(block,
        { { 32, (kind.isRoot ? 1u : 0u) | (kind.level == 0 ? 2u : 0u) | (isFixed ? 4u : 0u), 2 },
            { 34, kind.level, 2 }, { 36, records.size(), 4 }, { 42, tableSize, 2 } });
    std::uint64_t keyAt = 0, valueAt = 0, entry = 56;
    const std::uint64_t keyArea = 56 + tableSize,
                        valueEnd = options_.blockBytes - (kind.isRoot ? 40 : 0);
    for (const auto& [key, value] : records) {
        valueAt += value.size();
        if (keyArea + keyAt + key.size() + valueAt > valueEnd)
            throw std::logic_error("too many records for a node");
        write(offsetOf(block) + keyArea + keyAt, key);
        write(offsetOf(block) + valueEnd - valueAt, value);
        const std::uint64_t valueOffset = value.empty() ? 0xFFFF : valueAt;
        if (isFixed)
            put(block, { { entry, keyAt, 2 }, { entry + 2, valueOffset, 2 } });
        else
            put(block,
                { { entry, keyAt, 2 }, { entry + 2, key.size(), 2 }, { entry + 4, valueOffset, 2 },
                    { entry + 6, value.size(), 2 } });
        entry += isFixed ? 4 : 8;
        keyAt += key.size();
    }
    put(block,
        { { 44, keyAt, 2 }, { 46, valueEnd - keyArea - keyAt - valueAt, 2 }, { 48, 0xFFFF, 4 },
            { 52, 0xFFFF, 4 } });
    if (const auto footer = valueEnd; kind.isRoot)
        put(block,
            { { footer + 4, options_.blockBytes, 4 }, { footer + 8, kind.fixedKey, 4 },
                { footer + 12, kind.fixedValue, 4 }, { footer + 24, records.size(), 8 },
                { footer + 32, 1, 8 } });
    sign(block);
}

/// The block of the map. Its tree has one node, or as many leaves as are needed below one root.
std::uint64_t APFSImage::writeObjectMap(const std::multimap<std::uint64_t, Node>& objects)
{
    const std::size_t recordsPerLeaf = options_.blockBytes / 40;
    std::vector<Record> all;
    for (const auto& [oid, node] : objects)
        all.push_back({ Fields().add(oid, 8).add(node.xid, 8).bytes,
            Fields().add(0, 4).add(options_.blockBytes, 4).add(node.block, 8).bytes });
    NodeKind kind { .subtype = 11, .fixedKey = 16, .fixedValue = 16 };
    if (all.size() > recordsPerLeaf) {
        for (const auto& records : split(std::exchange(all, {}), recordsPerLeaf)) {
            const auto leaf = allocate();
            writeNode(leaf, leaf, physical, kind, records);
            all.push_back({ records[0].key, Fields().add(leaf, 8).bytes });
        }
        kind.level = 1;
    }
    const auto map = allocate(), root = allocate();
    kind.isRoot = true;
    writeNode(root, root, physical, kind, all);
    header(map, map, physical | 11);
    put(map, { { 40, physical | 2, 4 }, { 44, physical | 2, 4 }, { 48, root, 8 } });
    sign(map);
    return map;
}

std::vector<APFSImage::Leaf> APFSImage::split(Leaf records, std::size_t perLeaf)
{
    sort(records);
    std::vector<Leaf> leaves;
    for (std::size_t first = 0; first < records.size(); first += perLeaf) {
        const auto begin = records.begin() + static_cast<std::ptrdiff_t>(first);
        leaves.emplace_back(
            begin, begin + static_cast<std::ptrdiff_t>(std::min(perLeaf, records.size() - first)));
    }
    return leaves;
}

void APFSImage::commit(std::vector<Leaf> leaves, std::size_t volume)
{
    ++xid_;
    auto& [superblock, xid, nodes, heldNodes, namedNodes] = volumes_.at(volume);
    const auto firstOID = firstLeafOID + volume * oidsPerVolume;
    leaves.at(0).push_back(inode({ .id = 2, .parent = 1, .name = "root", .mode = 0x41ED }));
    std::vector<Record> index;
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        auto& records = leaves[i];
        sort(records);
        auto& node = nodes[firstOID + i];
        if (node.records != records) {
            if (node.block != 0 && options_.snapshots != 0)
                heldNodes.emplace(firstOID + i, node);
            node = { allocate(), xid_, records };
            writeNode(node.block, firstOID + i, 0, {}, records);
        }
        index.push_back({ records.empty() ? key(i, 3).bytes : records[0].key,
            Fields().add(firstOID + i, 8).bytes });
    }
    for (const auto oid : namedNodes)
        index.push_back({ key(oid, 3).bytes, Fields().add(oid, 8).bytes });
    nodes.erase(nodes.lower_bound(firstOID + leaves.size()), nodes.end());
    const std::size_t childrenPerNode = options_.blockBytes / bytesPerChild;
    std::uint16_t level = 1;
    for (auto oid = firstIndexOID + volume * oidsPerVolume; index.size() > childrenPerNode;
         ++level) {
        std::vector<Record> above;
        for (const auto& children : split(std::exchange(index, {}), childrenPerNode)) {
            nodes[oid] = { allocate(), xid_, {} };
            writeNode(nodes[oid].block, oid, 0, { .level = level }, children);
            above.push_back({ children[0].key, Fields().add(oid++, 8).bytes });
        }
        index = above;
    }
    const auto root = rootOID + volume * oidsPerVolume;
    if (nodes.contains(root) && options_.snapshots != 0)
        heldNodes.emplace(root, nodes.at(root));
    nodes[root] = { allocate(), xid_, {} };
    writeNode(nodes[root].block, root, 0, { .level = level, .isRoot = true }, index);
    writeVolume(volume);
    writeCheckpoint();
}

void APFSImage::takeSnapshot(const std::string& name)
{
    const auto kept = allocate();
    const auto superblock
        = ByteView(bytes_).sub(static_cast<std::int64_t>(offsetOf(volumes_[0].superblock)),
            static_cast<std::int64_t>(options_.blockBytes));
    write(offsetOf(kept), Bytes(superblock.span().begin(), superblock.span().end()));
    put(kept, { { 128, 0, 8 } }); // the volume's own object map counts
    sign(kept);
    snapshots_.push_back(
        { key(xid_, 1).bytes, Fields().add(0, 8).add(kept, 8).zeros(32).name(name).bytes });
}

void APFSImage::deleteLastVolume()
{
    ++xid_;
    volumes_.pop_back();
    writeVolume(0);
    writeCheckpoint();
}

void APFSImage::addNode(std::uint64_t oid, const std::vector<std::uint64_t>& blocks)
{
    volumes_[0].namedNodes.push_back(oid);
    for (const auto block : blocks)
        volumes_[0].heldNodes.emplace(oid, Node { block, 1, {} });
}

void APFSImage::writeVolume(std::size_t volume)
{
    auto& state = volumes_[volume];
    auto objects = state.heldNodes;
    objects.insert(state.nodes.begin(), state.nodes.end());
    const auto map = writeObjectMap(objects);
    const auto block = state.superblock = allocate();
    state.xid = xid_;
    std::uint64_t snapshotTree = 0;
    if (!snapshots_.empty()) {
        snapshotTree = allocate();
        writeNode(
            snapshotTree, snapshotTree, physical, { .subtype = 16, .isRoot = true }, snapshots_);
    }
    header(block, oidOf(volume), 13);
    write(offsetOf(block) + 32, bytesOf("APSB"));
    put(block,
        { { 56, options_.isHashed ? 1u : 0u, 8 }, { 116, 2, 4 }, { 128, map, 8 },
            { 136, rootOID + volume * oidsPerVolume, 8 }, { 152, snapshotTree, 8 },
            { 176, 5000, 8 }, { 216, options_.snapshots, 8 }, { 240, 77 + options_.generation, 8 },
            { 264, options_.flags, 8 } });
    write(offsetOf(block) + 704, bytesOf(options_.name));
    put(block, { { 964, options_.role, 2 } });
    sign(block);
    std::multimap<std::uint64_t, Node> superblocks;
    for (std::size_t i = 0; i < volumes_.size(); ++i)
        if (volumes_[i].superblock != 0)
            superblocks.emplace(oidOf(i), Node { volumes_[i].superblock, volumes_[i].xid, {} });
    containerMap_ = writeObjectMap(superblocks);
}

void APFSImage::writeCheckpoint()
{
    const auto index = 2 * (xid_ - 1) % descriptorBlocks;
    const auto map = descriptorBase + index, manager = dataBase + index, queue = manager + 1;
    superblock_ = map + 1;

    std::vector<Record> freed;
    for (const auto& [first, count] : freeQueue) {
        freed.push_back({ Fields().add(xid_, 8).add(first, 8).bytes,
            count == 1 ? Bytes() : Fields().add(count, 8).bytes });
        for (auto block = first; block < first + count; ++block)
            setAllocated(block);
    }
    writeNode(queue, queueOID, ephemeral,
        { .subtype = 9, .isRoot = true, .fixedKey = 16, .fixedValue = 8 }, freed);
    for (std::uint64_t block = 0; block < options_.blocks; ++block)
        if (auto& byte = bytes_.at(offsetOf(bitmapBlock) + block / 8);
            (byte >> block % 8 & 1) != allocated_[block])
            byte = static_cast<std::uint8_t>(byte ^ 1 << block % 8);
    header(chunkInfoBlock, chunkInfoBlock, physical | 7);
    put(chunkInfoBlock,
        { { 36, 1, 4 }, { 40, xid_, 8 }, { 56, options_.blocks, 4 },
            { 60, static_cast<std::uint64_t>(std::ranges::count(allocated_, false)), 4 },
            { 64, bitmapBlock, 8 } });
    sign(chunkInfoBlock);

    const auto addressBlock = options_.blocks - 1;
    if (options_.hasAddressBlock) {
        header(addressBlock, addressBlock, physical | 6);
        put(addressBlock, { { 36, 1, 4 }, { 40, chunkInfoBlock, 8 } });
        sign(addressBlock);
    }
    header(manager, spaceManagerOID, ephemeral | 5);
    put(manager,
        { { 32, options_.blockBytes, 4 }, { 36, options_.blockBytes * 8, 4 }, { 40, 126, 4 },
            { 44, 507, 4 }, { 48, options_.blocks, 8 }, { 56, 1, 8 }, { 64, 1, 4 },
            { 68, options_.hasAddressBlock ? 1u : 0u, 4 }, { 80, 2520, 4 }, { 248, queueOID, 8 },
            { 2520, options_.hasAddressBlock ? addressBlock : chunkInfoBlock, 8 } });
    sign(manager);

    header(map, map, physical | 12);
    put(map, { { 32, 1, 4 }, { 36, 2, 4 } });
    std::uint64_t at = 40;
    for (const auto& [type, oid, block] :
        { std::tuple(5u, spaceManagerOID, manager), std::tuple(2u, queueOID, queue) }) {
        put(map,
            { { at, ephemeral | type, 4 }, { at + 4, type == 2 ? 9u : 0u, 4 },
                { at + 8, options_.blockBytes, 4 }, { at + 24, oid, 8 }, { at + 32, block, 8 } });
        at += 40;
    }
    sign(map);

    for (const auto block : { superblock_, std::uint64_t { 0 } }) {
        header(block, 1, ephemeral | 1);
        write(offsetOf(block) + 32, bytesOf("NXSB"));
        put(block,
            { { 36, options_.blockBytes, 4 }, { 40, options_.blocks, 8 }, { 64, 2, 8 },
                { 72, 42 + options_.generation, 8 }, { 88, 2000, 8 }, { 96, xid_ + 1, 8 },
                { 104, descriptorBlocks, 4 }, { 108, dataBlocks, 4 }, { 112, descriptorBase, 8 },
                { 120, dataBase, 8 }, { 128, (index + 2) % descriptorBlocks, 4 },
                { 132, (index + 2) % dataBlocks, 4 }, { 136, index, 4 }, { 140, 2, 4 },
                { 144, index, 4 }, { 148, 2, 4 }, { 152, spaceManagerOID, 8 },
                { 160, containerMap_, 8 }, { 168, reaperOID, 8 }, { 180, options_.volumes, 4 } });
        for (std::size_t i = 0; i < volumes_.size(); ++i)
            put(block, { { 184 + 8 * i, oidOf(i), 8 } });
        sign(block);
    }
}
