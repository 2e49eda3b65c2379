#include "Tests/Images/ShadowArea.h"

#include <algorithm>

namespace {

constexpr std::uint8_t identifier[] = { 0x6B, 0x87, 0x08, 0x38, 0x76, 0xC1, 0x48, 0x4E, 0xB7, 0xAE,
    0x04, 0x04, 0x6E, 0x6C, 0xC7, 0x52 };
constexpr std::size_t entriesPerList = 3;

} // namespace

Bytes ShadowArea::header(std::uint64_t type, std::uint64_t offset, std::uint64_t next) const
{
    Bytes bytes(128);
    std::ranges::copy(identifier, bytes.begin());
    putLE(bytes, 16, 1, 4);
    putLE(bytes, 20, type, 4);
    putLE(bytes, 24, offset - start_, 8);
    putLE(bytes, 32, offset, 8);
    putLE(bytes, 40, next, 8);
    return bytes;
}

std::uint64_t ShadowArea::takeBlock()
{
    const auto block = next_;
    next_ += blockSize;
    return block;
}

std::vector<ShadowArea::Block> ShadowArea::changes(const Bytes& before, const Bytes& after) const
{
    std::vector<Block> blocks;
    for (std::uint64_t at = 0; at < start_; at += blockSize) {
        const auto of = [&](const Bytes& bytes) {
            const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            return Bytes(first, first + static_cast<std::ptrdiff_t>(blockSize));
        };
        if (of(before) != of(after))
            blocks.push_back({ .original = at, .kept = of(before) });
    }
    return blocks;
}

void ShadowArea::addStore(std::uint64_t created, const std::vector<Block>& blocks)
{
    auto list = takeBlock();
    stores_.push_back({ created, list });
    for (std::size_t first = 0; first == 0 || first < blocks.size(); first += entriesPerList) {
        const auto count = std::min(entriesPerList, blocks.size() - first);
        const bool isLast = first + count == blocks.size();
        const auto next = isLast ? 0 : takeBlock();
        auto bytes = header(3, list, next);
        bytes.resize(blockSize);
        for (std::size_t i = 0; i < count; ++i) {
            const auto& block = blocks[first + i];
            const auto copy = block.kept.empty() ? block.sharedCopy : takeBlock();
            if (!block.kept.empty())
                image_.write(copy, block.kept);
            const std::uint64_t at = 128 + 32 * i;
            putLE(bytes, at, block.original, 8);
            putLE(bytes, at + 8, block.movedTo, 8);
            putLE(bytes, at + 16, copy, 8);
            putLE(bytes, at + 24, block.flags, 4);
            putLE(bytes, at + 28, block.sectors, 4);
        }
        image_.write(list, bytes);
        list = next;
    }
}

void ShadowArea::finish()
{
    auto catalog = header(2, start_, 0);
    catalog.resize(blockSize);
    // The newest one first: the order of the entries says nothing.
    for (std::size_t i = 0; i < stores_.size(); ++i) {
        const std::uint64_t at = 128 + 256 * (stores_.size() - 1 - i);
        for (const std::uint64_t entry : { at, at + 128 })
            putLE(catalog, entry + 16, 0xAB00 + i, 2);
        putLE(catalog, at, 2, 8);
        putLE(catalog, at + 32, i + 1, 8);
        putLE(catalog, at + 48, stores_[i].created, 8);
        putLE(catalog, at + 128, 3, 8);
        putLE(catalog, at + 136, stores_[i].list, 8);
    }
    image_.write(start_, catalog);
    auto volumeHeader = header(1, 0x1E00, 0);
    putLE(volumeHeader, 48, start_, 8);
    image_.write(0x1E00, volumeHeader);
}
