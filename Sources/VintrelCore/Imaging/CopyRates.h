#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

/// How fast a copy goes, in bytes a second: on average since it began, and lately. Used by one
/// thread.
class CopyRates {
public:
    using Clock = std::chrono::steady_clock;

    /// `bytesBefore`: what an earlier run has copied already.
    CopyRates(Clock::time_point start, std::uint64_t bytesBefore);

    /// Notes how many bytes are copied by now.
    void add(Clock::time_point now, std::uint64_t bytes);

    /// Of the last five seconds; 0 in the first half second.
    double current() const;
    double average() const;

private:
    struct Sample {
        Clock::time_point time;
        std::uint64_t bytes;
    };

    static double rate(const Sample& from, const Sample& to);

    const Sample start_;
    std::deque<Sample> samples_; // never empty
};
