#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <chrono>
#include <functional>
#include <string>

class ImageFile;
class RangeMap;
struct ImagingStats;

/// Saves the mapfile of a run now and then, behind the data that it speaks of. Used by one thread.
class MapfileSaver {
public:
    using Clock = std::chrono::steady_clock;
    /// Gets a Danish sentence for the user.
    using Warning = std::function<void(const std::string&)>;

    /// `start`: of the run. Whatever is given must outlive this; `warn` may be empty.
    MapfileSaver(RangeMap& map, ImageFile& image, std::string path, const Warning& warn,
        Clock::time_point start)
        : map_(map)
        , image_(image)
        , path_(std::move(path))
        , warn_(warn)
        , lastEnd_(start)
    {
    }

    /// Whether it is time again. Saving takes up a tenth of the time at most.
    bool isDue(Clock::time_point now) const;
    /// Saves it. What did not reach the image's disk is untried again. The first failure of a run
    /// is told to the user.
    void save(const ImagingStats& stats);
    /// Whether the last time succeeded.
    bool isSaved() const { return !error_; }
    bool hasFlushFailed() const { return hasFlushFailed_; }

private:
    void flush();
    void warnOnce(const std::string& what, SystemError error);

    RangeMap& map_;
    ImageFile& image_;
    const std::string path_;
    const Warning& warn_;
    Clock::time_point lastEnd_;
    Clock::duration lastDuration_ {};
    SystemError error_;
    bool hasFlushFailed_ = false;
    bool hasWarned_ = false;
};
