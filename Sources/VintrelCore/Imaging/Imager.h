#pragma once

#include "VintrelCore/Imaging/RangeMap.h"

#include <CVintrel/Mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class DiskSource;

struct ImagingOptions {
    int retries = 1; ///< extra passes over the bad sectors
    std::size_t chunkSize
        = 1'048'576; ///< bytes in a read of the copy passes; made whole sectors, at least one
    std::uint64_t maxSkip
        = 268'435'456; ///< the largest jump, in bytes, after a read error in the first pass
};

/// How an imaging run stands.
struct ImagingStats {
    std::string phase; ///< what is being done, in Danish
    int pass = 0;      ///< from 1
    std::uint64_t position = 0;
    std::uint64_t rescued = 0; ///< bytes in the image
    std::uint64_t bad = 0;     ///< bytes that could not be read even sector by sector
    std::uint64_t pending = 0; ///< bytes that are still to be tried, or to be tried again
    std::uint64_t total = 0;
    std::int64_t readErrors = 0;
    double currentRate = 0;      ///< bytes a second, of the last 5 seconds
    double averageRate = 0;      ///< bytes a second, of this run
    double elapsed = 0;          ///< seconds since the run began
    double sinceLastSuccess = 0; ///< seconds since something was read and written
    bool finished = false;
    std::optional<std::string>
        message; ///< in Danish, at the end of a run: why it ended, unless it is done
};

/// Copies a source to an image file of the same size, what reads easily first: large pieces,
/// leaping away from damage; then what was leapt over; then the damaged pieces sector by sector;
/// then the bad sectors again. A mapfile beside the image remembers what is done, so that a run
/// which ends in any way, a kill or a loss of power included, goes on where it was. What the
/// mapfile calls finished is in the image.
class DiskImager {
public:
    using Update = std::function<void(const ImagingStats&)>;
    /// Gets a Danish sentence of what went wrong while the run goes on.
    using Warning = std::function<void(const std::string&)>;

    /// Goes on from the mapfile when both it and the image are there. The source must outlive the
    /// imager.
    DiskImager(DiskSource& source, std::string imagePath, ImagingOptions options = {});

    const std::string& mapPath() const { return mapPath_; }
    const RangeMap& map() const { return *map_; }
    /// Whether an earlier run has done something.
    bool isResuming() const;

    /// Does the whole job on the calling thread. `onUpdate` is called at most four times a second,
    /// and once at the end with `finished` set. Can be called again after a stop.
    void run(const Update& onUpdate, const Warning& warn = nullptr);

    /// These three may be called by any thread, also during a run.
    void setPaused(bool isPaused) { isPaused_ = isPaused; }
    /// Stops the run that is going on. A new one starts uncancelled.
    void cancel() { isCancelled_ = true; }
    ImagingStats currentStats() const;

private:
    class Session;

    bool isMapfileWrong() const;
    void distrustBeyond(std::uint64_t imageSize);

    DiskSource& source_;
    const std::string imagePath_;
    const std::string mapPath_;
    const ImagingOptions options_;
    std::unique_ptr<RangeMap> map_; // never none
    /// Whether a mapfile on the disk, should there be one, may call finished what the image does
    /// not hold.
    bool isMapfileStale_ = false;
    std::atomic<bool> isPaused_ = false;
    std::atomic<bool> isCancelled_ = false;
    mutable CVintrel::Mutex lock_;
    ImagingStats stats_ GUARDED_BY(lock_);
};
