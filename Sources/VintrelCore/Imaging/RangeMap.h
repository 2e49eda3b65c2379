#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// How far the rescue of every byte of a source has come, and its mapfile, which is GNU ddrescue's.
/// Positions and sizes are in bytes. Any thread may use it.
class RangeMap {
public:
    /// `nonTrimmed`: failed in a large read. `nonScraped`: the same with its edges found, which
    /// only other tools leave behind. `bad`: failed as a single sector.
    enum class Status { nonTried, nonTrimmed, nonScraped, bad, finished };

    static constexpr std::array allStatuses { Status::nonTried, Status::nonTrimmed,
        Status::nonScraped, Status::bad, Status::finished };

    struct Block {
        std::uint64_t position = 0;
        std::uint64_t size = 0;
        Status status = Status::nonTried;

        std::uint64_t end() const { return position + size; }
        bool operator==(const Block&) const = default;
    };

    /// A map in which nothing has been tried.
    explicit RangeMap(std::uint64_t size);

    std::uint64_t size() const { return size_; }

    /// Gives [position, position + length) this status. What of it lies past the end is left out.
    void set(std::uint64_t position, std::uint64_t length, Status status);
    /// The first stretch of this status that ends after `from`, without what of it lies before
    /// `from`.
    std::optional<Block> first(Status status, std::uint64_t from) const;
    /// How many bytes have this status.
    std::uint64_t total(Status status) const;
    /// The whole map in order: without gaps, and no two neighbours of one status.
    std::vector<Block> snapshot() const;
    /// A picture of the map in `count` cells, each with the worst status in its share of the
    /// source.
    std::vector<Status> cells(std::size_t count) const;

    /// The text of the mapfile. `position` and `pass` say where the copying was, for other tools.
    std::string mapfile(std::uint64_t position, int pass) const;
    /// The map of a source of `size` bytes that a mapfile's text describes. None when no line of it
    /// is a block. Its figures are a stranger's: what lies past the end is cut, and of lines that
    /// overlap the later one holds.
    static std::unique_ptr<RangeMap> parse(std::string_view text, std::uint64_t size);

    /// Saves the mapfile. At every moment, a loss of power included, there is a whole one at
    /// `path`, this one or the one before. Returns the system's error number; 0 when all went well.
    [[nodiscard]] int write(const std::string& path, std::uint64_t position, int pass) const;
    /// What write() uses on the way.
    static std::string temporaryPath(const std::string& path) { return path + ".tmp"; }
    /// Loads a mapfile. None when it cannot be read or holds no block.
    static std::unique_ptr<RangeMap> read(const std::string& path, std::uint64_t size);

private:
    /// Ranges that neither overlap nor touch.
    class RangeSet {
    public:
        /// No byte of [start, end) is in the set, and it is not empty.
        void add(std::uint64_t start, std::uint64_t end);
        void remove(std::uint64_t start, std::uint64_t end);
        std::optional<ByteRange> firstEndingAfter(std::uint64_t position) const;
        std::uint64_t total() const { return total_; }
        const std::map<std::uint64_t, std::uint64_t>& ends() const { return ends_; }

    private:
        std::map<std::uint64_t, std::uint64_t> ends_; // by the ranges' starts
        std::uint64_t total_ = 0;
    };

    RangeSet& with(Status status) { return sets_[static_cast<std::size_t>(status)]; }
    const RangeSet& with(Status status) const { return sets_[static_cast<std::size_t>(status)]; }

    const std::uint64_t size_;
    mutable std::mutex lock_; // guards sets_
    std::array<RangeSet, allStatuses.size()>
        sets_ {}; // by status; together they hold every byte once
};
