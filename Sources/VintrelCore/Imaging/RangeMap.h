#pragma once

#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Foundation/SystemResult.h"

#include <CVintrel/Mutex.h>

#include <array>
#include <cstdint>
#include <memory>
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
    /// `path`, this one or the one before.
    [[nodiscard]] SystemError write(
        const std::string& path, std::uint64_t position, int pass) const;
    /// What write() uses on the way.
    static std::string temporaryPath(const std::string& path) { return path + ".tmp"; }
    /// Loads a mapfile. None when it cannot be read or holds no block.
    static std::unique_ptr<RangeMap> read(const std::string& path, std::uint64_t size);

private:
    RangeSet& with(Status status) REQUIRES(lock_)
    {
        return sets_[static_cast<std::size_t>(status)];
    }
    const RangeSet& with(Status status) const REQUIRES(lock_)
    {
        return sets_[static_cast<std::size_t>(status)];
    }

    const std::uint64_t size_;
    mutable CVintrel::Mutex lock_;
    /// By status; together they hold every byte once.
    std::array<RangeSet, allStatuses.size()> sets_ GUARDED_BY(lock_) {};
};
