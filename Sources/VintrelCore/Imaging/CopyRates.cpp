#include "VintrelCore/Imaging/CopyRates.h"

namespace {

constexpr std::chrono::seconds window { 5 };
constexpr std::chrono::milliseconds shortestWindow { 500 };

} // namespace

CopyRates::CopyRates(Clock::time_point start, std::uint64_t bytesBefore)
    : start_ { start, bytesBefore }
    , samples_ { start_ }
{
}

void CopyRates::add(Clock::time_point now, std::uint64_t bytes)
{
    samples_.push_back({ now, bytes });
    while (now - samples_.front().time > window)
        samples_.pop_front();
}

double CopyRates::current() const
{
    const auto& first = samples_.front();
    const auto& last = samples_.back();
    return last.time - first.time > shortestWindow ? rate(first, last) : 0;
}

double CopyRates::average() const { return rate(start_, samples_.back()); }

double CopyRates::rate(const Sample& from, const Sample& to)
{
    const std::chrono::duration<double> time = to.time - from.time;
    return to.bytes > from.bytes && time.count() > 0
        ? static_cast<double>(to.bytes - from.bytes) / time.count()
        : 0;
}
