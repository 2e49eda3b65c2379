#pragma once

#include "VintrelCore/FileSystems/NTFS/Shadow/BlockList.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

class DiskSource;

namespace NTFSShadow {

/// Where the bytes of a shadow copy lie: in its own store where it kept them, otherwise in the
/// stores of the copies that were made after it, oldest first, and at last on the volume itself.
class Mapping {
public:
    /// Where bytes lie that follow each other in the copy.
    struct Piece {
        std::uint64_t offset = 0; ///< on the source, in bytes
        std::uint64_t length = 0;
        std::size_t store = 0; ///< from the copy's own on, which is 0; `volumeItself`

        bool operator==(const Piece&) const = default;
    };
    static constexpr std::size_t volumeItself = static_cast<std::size_t>(-1);

    /// `base` and `size`: of the volume on the source, in bytes. `stores`: the copy's own first,
    /// then the newer ones; they must outlive this.
    Mapping(std::uint64_t base, std::uint64_t size, std::span<const BlockList> stores);

    /// The pieces of a range that is given as if the copy were the volume, in bytes on the source,
    /// in order, neighbours merged. What lies outside the volume is where it is.
    std::vector<Piece> locate(std::uint64_t offset, std::uint64_t length) const;

    /// A source that reads as if the copy were the volume. `source` and this must outlive it.
    std::unique_ptr<DiskSource> open(DiskSource& source) const;

private:
    struct Task {
        std::uint64_t offset, length; ///< of the volume
        std::size_t store;
    };

    void split(const Task& task, std::vector<Task>& open, std::vector<Piece>& pieces) const;
    void takeBlock(const Task& task, const BlockList::Block& block, std::vector<Task>& open,
        std::vector<Piece>& pieces) const;
    void add(std::vector<Piece>& pieces, std::uint64_t offset, std::uint64_t length,
        std::size_t store) const;

    const std::uint64_t base_;
    const std::uint64_t size_;
    const std::span<const BlockList> stores_;
};

} // namespace NTFSShadow
