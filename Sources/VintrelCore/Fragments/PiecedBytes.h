#pragma once

#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>
#include <vector>

class DiskSource;

namespace Fragments {

/// Blocks of the source that were read lately. A search looks at the same units once for each place
/// where a piece may end. Used by one thread.
class BlockCache {
public:
    static constexpr std::uint64_t blockSize = 65'536;
    static constexpr std::size_t mostBlocks = 1024; // 64 MiB

    explicit BlockCache(DiskSource& source)
        : source_(source)
    {
    }
    /// The bytes from `offset` on to the end of their block; empty at and past the source's end.
    /// Valid until the next call.
    ByteView from(std::uint64_t offset);
    DiskSource& source() const { return source_; }
    /// Bytes that were asked of the source.
    std::uint64_t bytesRead() const { return bytesRead_; }

private:
    struct Block {
        std::uint64_t index;
        Bytes bytes;
    };

    DiskSource& source_;
    std::list<Block> blocks_; // most recently used first
    std::unordered_map<std::uint64_t, std::list<Block>::iterator> byIndex_;
    std::uint64_t bytesRead_ = 0;
};

/// A structure near a file's end that was found before anything led to it.
struct KnownEnd {
    std::uint64_t position = 0; ///< in the file
    std::uint64_t offset = 0;   ///< on the source
};

/// A file in pieces, as far as they are put together. The last piece is used from its start on, up
/// to the size that was set.
class PiecedBytes final : public Content::FileBytes {
public:
    /// `pieces`: on the source, in the order of the file.
    PiecedBytes(BlockCache& cache, std::vector<ByteRange> pieces,
        const std::optional<KnownEnd>& end = std::nullopt);
    PiecedBytes(const PiecedBytes&) = delete;
    PiecedBytes& operator=(const PiecedBytes&) = delete;
    ~PiecedBytes() override = default;

    std::uint64_t size() const override { return size_; }
    bool isWhole() const override { return isWhole_; }
    ByteView stretch(std::uint64_t position, std::size_t count) override;
    FileBytes* withEnd() override { return end_ ? &withEnd_ : nullptr; }

    /// Lets so many bytes be read, at most those of all pieces.
    void growTo(std::uint64_t size);
    void growToEnd() { growTo(sizeOfAll_); }
    /// Nothing follows: the file ends where it can be read to, or it is broken.
    void end() { isWhole_ = true; }
    std::uint64_t sizeOfAll() const { return sizeOfAll_; }

private:
    class WithEnd final : public Content::FileBytes {
    public:
        explicit WithEnd(PiecedBytes& file)
            : file_(file)
        {
        }
        std::uint64_t size() const override;
        bool isWhole() const override { return false; }
        ByteView stretch(std::uint64_t position, std::size_t count) override;

    private:
        PiecedBytes& file_;
    };

    BlockCache& cache_;
    const std::vector<ByteRange> pieces_;
    const std::optional<KnownEnd> end_;
    WithEnd withEnd_ { *this };
    std::uint64_t sizeOfAll_ = 0;
    std::uint64_t size_ = 0;
    bool isWhole_ = false;
};

/// Pieces in the order of a file, cut to its size.
std::vector<ByteRange> cutTo(std::vector<ByteRange> pieces, std::uint64_t size);
std::uint64_t sizeOf(const std::vector<ByteRange>& pieces);

} // namespace Fragments
