#pragma once

#include "VintrelCore/Recovery/Recovery.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <chrono>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

/// How a long command stands, in one line of Danish, for a user who asks with a signal, and all the
/// time on a terminal where that is wanted. Used by one thread.
class StateLine {
public:
    using Clock = std::chrono::steady_clock;

    /// `isLive`: `err` is a terminal that shows the line all the time.
    StateLine(std::ostream& err, bool isLive)
        : err_(err)
        , isLive_(isLive)
    {
    }
    StateLine(const StateLine&) = delete;
    StateLine& operator=(const StateLine&) = delete;
    ~StateLine() { clear(); }

    /// Shows the line when a signal has asked for it, or the live one is due. Called often.
    void show(const std::function<std::string()>& describe);
    /// Takes the live line off the terminal, so that another line can be printed.
    void clear();

    static std::string describe(double fraction, const std::string& message);
    static std::string describe(const DeepScanStats& stats);
    static std::string describe(const RecoveryProgress& progress, Clock::duration elapsed);

private:
    std::ostream& err_;
    const bool isLive_;
    bool isShown_ = false;
    std::optional<Clock::time_point> lastShown_;
};
