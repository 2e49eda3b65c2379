#include "Tests/Images/ExtImage.h"

#include <algorithm>

namespace {

/// CRC-32C bit by bit, so that it shares nothing with what is tested.
std::uint32_t crc32c(std::uint32_t state, std::uint8_t byte)
{
    state ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        state = (state & 1) != 0 ? state >> 1 ^ 0x82F63B78 : state >> 1;
    return state;
}

std::uint32_t crc32c(std::uint32_t state, std::uint32_t number)
{
    for (int shift = 0; shift < 32; shift += 8)
        state = crc32c(state, static_cast<std::uint8_t>(number >> shift));
    return state;
}

/// CRC-32 with its highest term in the highest bit, likewise.
std::uint32_t crc32Of(ByteView bytes)
{
    std::uint32_t state = 0xFFFFFFFF;
    for (const auto byte : bytes.span())
        for (int bit = 7; bit >= 0; --bit) {
            const auto top = (state >> 31) ^ (byte >> bit & 1U);
            state = state << 1 ^ (top != 0 ? 0x04C11DB7 : 0);
        }
    return state;
}

constexpr std::uint32_t start = 0xFFFFFFFF;
constexpr std::uint64_t uuidOffset = 1024 + 104;
constexpr std::uint64_t nodeRoom = 84; // entries of a node that takes a block
constexpr std::uint64_t tail = ExtImage::blockSize - 4;

} // namespace

std::uint32_t ExtImage::sum(std::uint32_t state, std::uint64_t from, std::uint64_t count) const
{
    for (auto at = from; at < from + count; ++at)
        state = crc32c(state, bytes_.at(at));
    return state;
}

ExtImage::ExtImage()
{
    bytes_.resize(blockCount * blockSize);
    const auto field = [&](std::uint64_t at, std::uint64_t value, int width) {
        putLE(bytes_, 1024 + at, value, width);
    };
    field(0, inodeCount, 4);
    field(4, blockCount, 4);
    field(20, 1, 4); // the first data block
    for (const auto at : { 32, 36 })
        field(static_cast<std::uint64_t>(at), 8192, 4);
    field(40, inodeCount, 4);
    field(56, 0xEF53, 2);
    field(76, 1, 4);
    field(84, 11, 4);
    field(88, inodeSize, 2);
    field(92, 0x4, 4);        // a journal
    field(96, 0x2 | 0x40, 4); // types in directories, extents
    field(100, 0x400, 4);     // checksums
    for (std::uint64_t index = 0; index < 16; ++index)
        bytes_[uuidOffset + index] = static_cast<std::uint8_t>(0x30 + index);
    field(224, 8, 4);
    seed_ = sum(start, uuidOffset, 16);

    putLE(bytes_, offsetOf(2), bitmapBlock, 4);
    putLE(bytes_, offsetOf(2) + 4, 4, 4);
    putLE(bytes_, offsetOf(2) + 8, tableBlock, 4);
    setUsed(1, rootBlock + 1, true);
    setUsed(journalBlock, journalBlocks, true);

    putHeader(journalBlock, 4);
    const auto journal = offsetOf(journalBlock);
    putBE(bytes_, journal + 8, 0, 4);
    putBE(bytes_, journal + 12, blockSize, 4);
    putBE(bytes_, journal + 16, journalBlocks, 4);
    putBE(bytes_, journal + 20, 1, 4);
    putBE(bytes_, journal + 24, 1, 4);
    putBE(bytes_, journal + 40, 0x1 | 0x10, 4); // revokes, checksums of version 3
    bytes_[journal + 48] = 0x77;
    journalSeed_ = sum(start, journal + 48, 16);
    putInode(8,
        { .size = journalBlocks * blockSize, .extents = { { 0, journalBlock, journalBlocks } } });
    putFolder(root, root, rootBlock, {});
    renewChecksums();
}

std::uint32_t ExtImage::seedOf(std::uint32_t number) const
{
    return sum(crc32c(seed_, number), slotOf(number) + 100, 4);
}

void ExtImage::sumInode(std::uint32_t number)
{
    const auto slot = slotOf(number);
    putLE(bytes_, slot + 124, 0, 2);
    putLE(bytes_, slot + 130, 0, 2);
    const auto checksum = sum(seedOf(number), slot, inodeSize);
    putLE(bytes_, slot + 124, checksum & 0xFFFF, 2);
    putLE(bytes_, slot + 130, checksum >> 16, 2);
}

void ExtImage::putInode(std::uint32_t number, const Inode& inode)
{
    const auto slot = slotOf(number);
    std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(slot), inodeSize, std::uint8_t { 0 });
    putLE(bytes_, slot, inode.mode, 2);
    putLE(bytes_, slot + 4, inode.size, 4);
    putLE(bytes_, slot + 16, 1'600'000'000, 4);
    putLE(bytes_, slot + 20, inode.deleted, 4);
    putLE(bytes_, slot + 26, inode.links, 2);
    putLE(bytes_, slot + 32, inode.hasLists ? 0 : 0x80000, 4);
    putLE(bytes_, slot + 100, inode.generation, 4);
    putLE(bytes_, slot + 128, 32, 2);
    putLE(bytes_, slot + 144, inode.created, 4);
    const auto map = slot + 40;
    if (inode.hasLists) {
        for (const auto& piece : inode.extents)
            putLE(bytes_, map + piece.logical * 4, piece.block, 4);
    } else {
        if (inode.node != 0) {
            putTree(map, 4, { { 0, inode.node, 0 } }, 1);
            nodes_[inode.node] = number;
        }
        putTree(inode.node != 0 ? offsetOf(inode.node) : map, inode.node != 0 ? nodeRoom : 4,
            inode.extents, 0);
    }
    renewChecksums();
}

void ExtImage::putTree(
    std::uint64_t at, std::size_t room, const std::vector<Piece>& pieces, std::uint16_t depth)
{
    putLE(bytes_, at, 0xF30A, 2);
    putLE(bytes_, at + 2, pieces.size(), 2);
    putLE(bytes_, at + 4, room, 2);
    putLE(bytes_, at + 6, depth, 2);
    for (const auto& piece : pieces) {
        at += 12;
        putLE(bytes_, at, piece.logical, 4);
        putLE(bytes_, at + 4, depth == 0 ? piece.count : piece.block, depth == 0 ? 2 : 4);
        putLE(bytes_, at + 8, depth == 0 ? piece.block : 0, 4);
    }
}

void ExtImage::putNode(std::uint64_t block, std::uint32_t number, std::uint32_t generation,
    const std::vector<Piece>& pieces, std::uint16_t depth)
{
    const auto at = offsetOf(block);
    putTree(at, nodeRoom, pieces, depth);
    const auto seed = crc32c(crc32c(seed_, number), generation);
    putLE(bytes_, at + 12 + nodeRoom * 12, sum(seed, at, 12 + nodeRoom * 12), 4);
}

void ExtImage::putFirstOrphan(std::uint32_t number)
{
    putLE(bytes_, 1024 + 232, number, 4);
    renewChecksums();
}

void ExtImage::putOrphanFile(std::uint32_t number, std::uint64_t block, std::uint32_t orphan)
{
    putLE(bytes_, 1024 + 92, 0x4 | 0x1000, 4);
    putLE(bytes_, 1024 + 640, number, 4);
    putInode(number, { .size = blockSize, .extents = { { 0, block, 1 } } });
    const auto at = offsetOf(block);
    putLE(bytes_, at + 8, orphan, 4);
    putLE(bytes_, at + blockSize - 8, 0x0B10CA04, 4);
    const auto place = static_cast<std::uint32_t>(block);
    const auto state = crc32c(crc32c(seedOf(number), place), std::uint32_t { 0 });
    putLE(bytes_, at + tail, sum(state, at, blockSize - 8), 4);
}

void ExtImage::putFolder(std::uint32_t number, std::uint32_t parent, std::uint64_t block,
    const std::vector<std::pair<std::uint32_t, std::string>>& entries)
{
    putInode(
        number, { .mode = 0x41ED, .size = blockSize, .links = 2, .extents = { { 0, block, 1 } } });
    auto at = offsetOf(block);
    const auto end = at + blockSize - 12;
    std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at), blockSize, std::uint8_t { 0 });
    auto all = entries;
    all.insert(all.begin(), { { number, "." }, { parent, ".." } });
    for (std::size_t index = 0; index < all.size(); ++index) {
        const auto& [child, name] = all[index];
        const auto length = index + 1 == all.size() ? end - at : (8 + name.size() + 3) / 4 * 4;
        putLE(bytes_, at, child, 4);
        putLE(bytes_, at + 4, length, 2);
        bytes_[at + 6] = static_cast<std::uint8_t>(name.size());
        std::ranges::copy(name, bytes_.begin() + static_cast<std::ptrdiff_t>(at) + 8);
        at += length;
    }
    putLE(bytes_, end + 4, 12, 2);
    bytes_[end + 7] = 0xDE;
    folders_[block] = number;
    setUsed(block, 1, true);
    renewChecksums();
}

void ExtImage::putFile(std::uint32_t number, std::uint64_t block, std::string_view content)
{
    const auto count = static_cast<std::uint16_t>((content.size() + blockSize - 1) / blockSize);
    putInode(number, { .size = content.size(), .extents = { { 0, block, count } } });
    write(offsetOf(block), bytesOf(content));
    setUsed(block, count, true);
}

/// As the system leaves it: without a size, and with a tree that has no extents.
void ExtImage::removeInode(std::uint32_t number, std::uint32_t generation)
{
    putInode(number, { .links = 0, .deleted = 1'700'000'000, .generation = generation });
}

void ExtImage::setUsed(std::uint64_t block, std::uint64_t count, bool isUsed)
{
    for (auto bit = block - 1; bit < block - 1 + count; ++bit) {
        auto& byte = bytes_[offsetOf(bitmapBlock) + bit / 8];
        const auto mask = static_cast<std::uint8_t>(1U << (bit % 8));
        byte = static_cast<std::uint8_t>(isUsed ? byte | mask : byte & ~mask);
    }
}

void ExtImage::putHeader(std::uint64_t block, std::uint32_t type)
{
    const auto at = offsetOf(block);
    putBE(bytes_, at, 0xC03B3998, 4);
    putBE(bytes_, at + 4, type, 4);
    putBE(bytes_, at + 8, sequence_, 4);
}

void ExtImage::sumTail(std::uint64_t block)
{
    putBE(bytes_, offsetOf(block) + tail, 0, 4);
    putBE(bytes_, offsetOf(block) + tail, sum(journalSeed_, offsetOf(block), blockSize), 4);
}

void ExtImage::commit(
    const std::vector<std::uint64_t>& blocks, const std::vector<std::uint64_t>& revoked)
{
    const auto first = logBlock(logLength_++);
    putHeader(first, 1);
    for (std::size_t index = 0; index < blocks.size(); ++index) {
        const auto copy = logBlock(logLength_++);
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offsetOf(blocks[index])),
            blockSize, bytes_.begin() + static_cast<std::ptrdiff_t>(offsetOf(copy)));
        auto state = journalSeed_;
        for (int shift = 24; shift >= 0; shift -= 8)
            state = crc32c(state, static_cast<std::uint8_t>(sequence_ >> shift));
        const auto tag
            = offsetOf(first) + 12 + index * (hasOldJournal_ ? 8 : 16) + (index > 0 ? 16 : 0);
        putBE(bytes_, tag, blocks[index], 4);
        putBE(
            bytes_, tag + 4, (index > 0 ? 0x2u : 0u) | (index + 1 == blocks.size() ? 0x8u : 0u), 4);
        if (!hasOldJournal_)
            putBE(bytes_, tag + 12, sum(state, offsetOf(copy), blockSize), 4);
    }
    if (!hasOldJournal_)
        sumTail(first);
    const auto written = (1 + blocks.size()) * blockSize;
    if (!revoked.empty()) {
        const auto block = logBlock(logLength_++);
        putHeader(block, 5);
        putBE(bytes_, offsetOf(block) + 12, 16 + 4 * revoked.size(), 4);
        for (std::size_t index = 0; index < revoked.size(); ++index)
            putBE(bytes_, offsetOf(block) + 16 + 4 * index, revoked[index], 4);
        sumTail(block);
    }
    const auto last = logBlock(logLength_++);
    putHeader(last, 2);
    putBE(bytes_, offsetOf(last) + 48, 1'500'000'000 + sequence_, 8);
    putBE(bytes_, offsetOf(last) + 12, hasOldJournal_ ? 0x0104 : 0, 2); // CRC-32, of four bytes
    putBE(bytes_, offsetOf(last) + 16,
        hasOldJournal_ ? crc32Of(ByteView(bytes_).sub(
            static_cast<std::int64_t>(offsetOf(first)), static_cast<std::int64_t>(written)))
                       : sum(journalSeed_, offsetOf(last), blockSize),
        4);
    ++sequence_;
}

void ExtImage::useOldJournal()
{
    hasOldJournal_ = true;
    putBE(bytes_, offsetOf(journalBlock) + 36, 0x1, 4);
    putBE(bytes_, offsetOf(journalBlock) + 40, 0x1, 4); // revokes
}

void ExtImage::useFastCommits(std::uint64_t blocks)
{
    putBE(bytes_, offsetOf(journalBlock) + 40, 0x1 | 0x10 | 0x20, 4);
    putBE(bytes_, offsetOf(journalBlock) + 84, blocks, 4);
    logEnd_ = journalBlocks - blocks;
    logStart_ = logEnd_ - 3; // so that it goes round
}

void ExtImage::demandReplay() { putBE(bytes_, offsetOf(journalBlock) + 28, logStart_, 4); }

ExtImage::Change ExtImage::name(
    std::uint16_t kind, std::uint32_t folder, std::uint32_t number, std::string_view text)
{
    Bytes value(8);
    putLE(value, 0, folder, 4);
    putLE(value, 4, number, 4);
    return { kind, joined({ value, bytesOf(text) }) };
}

ExtImage::Change ExtImage::inode(std::uint32_t number) const
{
    Bytes value(4);
    putLE(value, 0, number, 4);
    const auto slot = bytes_.begin() + static_cast<std::ptrdiff_t>(slotOf(number));
    value.insert(value.end(), slot, slot + inodeSize);
    return { 6, value };
}

ExtImage::Change ExtImage::blocks(std::uint32_t number, const Piece& piece)
{
    Bytes value(16);
    putLE(value, 0, number, 4);
    putLE(value, 4, piece.logical, 4);
    putLE(value, 8, piece.count, 2);
    putLE(value, 12, piece.block, 4);
    return { 1, value };
}

void ExtImage::putFastCommit(std::uint32_t sequence, const std::vector<Change>& changes)
{
    const auto start = offsetOf(journalBlock + logEnd_ + 1 + fastCommits_.size());
    auto at = start;
    const auto put = [&](const Change& change) {
        putLE(bytes_, at, change.kind, 2);
        putLE(bytes_, at + 2, change.value.size(), 2);
        write(at + 4, change.value);
        at += 4 + change.value.size();
    };
    Bytes features(8);
    putLE(features, 4, sequence, 4);
    if (fastCommits_.empty())
        put({ 9, features });
    for (const auto& change : changes)
        put(change);
    putLE(bytes_, at, 8, 2);
    putLE(bytes_, at + 2, start + blockSize - at - 4, 2);
    putLE(bytes_, at + 4, sequence, 4);
    fastCommits_.emplace_back(start, at + 8);
    renewChecksums();
}

std::uint64_t ExtImage::logBlock(std::uint64_t index) const
{
    const auto position = logStart_ + index;
    return journalBlock + (position < logEnd_ ? position : position - logEnd_ + 1);
}

void ExtImage::renewChecksums()
{
    if (bytes_.size() < blockCount * blockSize)
        return;
    putLE(bytes_, 1024 + 1020, sum(start, 1024, 1020), 4);
    putLE(bytes_, offsetOf(2) + 30, 0, 2);
    putLE(bytes_, offsetOf(2) + 30,
        sum(crc32c(seed_, std::uint32_t { 0 }), offsetOf(2), 32) & 0xFFFF, 2);
    for (std::uint32_t number = 1; number <= inodeCount; ++number)
        if (bytes_[slotOf(number) + 1] != 0)
            sumInode(number);
    for (const auto& [block, number] : folders_)
        putLE(bytes_, offsetOf(block) + tail, sum(seedOf(number), offsetOf(block), blockSize - 12),
            4);
    for (const auto& [block, number] : nodes_)
        putLE(bytes_, offsetOf(block) + 12 + nodeRoom * 12,
            sum(seedOf(number), offsetOf(block), 12 + nodeRoom * 12), 4);
    for (const auto& [from, place] : fastCommits_)
        putLE(bytes_, place, sum(0, from, place - from), 4);
}
