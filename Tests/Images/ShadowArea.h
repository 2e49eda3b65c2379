#pragma once

#include "Tests/Images/DiskImage.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <vector>

/// Builds the shadow copies of a volume in the part of it that files leave free: their catalog,
/// their lists and what they kept.
class ShadowArea {
public:
    static constexpr std::uint64_t blockSize = 16'384;

    /// An entry of a list.
    struct Block {
        std::uint64_t original;    ///< in bytes
        Bytes kept = {};           ///< a block; empty: nothing is stored
        std::uint64_t movedTo = 0; ///< of a forwarder
        std::uint32_t flags = 0;
        std::uint32_t sectors = 0;    ///< of an overlay
        std::uint64_t sharedCopy = 0; ///< of an overlay that goes on: where the first one lies
    };

    /// `start`: where the area begins in the image, a multiple of the size of a block.
    ShadowArea(DiskImage& image, std::uint64_t start)
        : image_(image)
        , start_(start)
        , next_(start + blockSize)
    {
    }

    /// What a system that changes `before` into `after` keeps, up to the area.
    std::vector<Block> changes(const Bytes& before, const Bytes& after) const;

    /// Adds a copy, with few entries in each block of its list. The oldest one comes first.
    void addStore(std::uint64_t created, const std::vector<Block>& blocks);
    /// Writes the catalog, and the header that leads to it.
    void finish();

    /// Where the first list of copy `index` lies.
    std::uint64_t listOffset(std::size_t index) const { return stores_.at(index).list; }

private:
    struct Store {
        std::uint64_t created, list;
    };

    Bytes header(std::uint64_t type, std::uint64_t offset, std::uint64_t next) const;
    std::uint64_t takeBlock();

    DiskImage& image_;
    const std::uint64_t start_; ///< of the catalog
    std::uint64_t next_;        ///< the first free block
    std::vector<Store> stores_;
};
