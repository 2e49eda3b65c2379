#include "VintrelCLI/StateLine.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/Signals.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <ostream>

namespace {

constexpr std::chrono::milliseconds liveInterval { 500 };
constexpr const char* eraseLine = "\r\33[K";

std::string percent(double fraction)
{
    return std::to_string(static_cast<int>(100 * std::clamp(fraction, 0.0, 1.0))) + " %";
}

double share(std::uint64_t part, std::uint64_t whole)
{
    return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0;
}

std::string rateText(double bytesPerSecond)
{
    return formatBytes(static_cast<std::uint64_t>(std::max(bytesPerSecond, 0.0))) + "/s";
}

} // namespace

void StateLine::show(const std::function<std::string()>& describe)
{
    const auto now = Clock::now();
    const bool isAsked = StateRequests::take();
    const bool isDue = isLive_ && (!lastShown_ || now - *lastShown_ >= liveInterval);
    if (!isAsked && !isDue)
        return;
    lastShown_ = now;
    const auto line
        = (isLive_ ? eraseLine : "") + Unicode::escaped(describe()) + (isLive_ ? "" : "\n");
    err_.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
    isShown_ = isLive_;
}

void StateLine::clear()
{
    if (isShown_)
        err_ << eraseLine << std::flush;
    isShown_ = false;
}

std::string StateLine::describe(double fraction, const std::string& message)
{
    return fraction > 0 ? message + " " + percent(fraction) : message;
}

std::string StateLine::describe(const DeepScanStats& stats)
{
    return "Dyb scanning: " + percent(share(stats.position, stats.total)) + " af "
        + formatBytes(stats.total) + ", " + rateText(stats.rate) + ", "
        + std::to_string(stats.filesFound) + " signaturfund, " + std::to_string(stats.bootSectors)
        + " bootsektorer, " + std::to_string(stats.mftRecords) + " MFT-poster";
}

std::string StateLine::describe(const RecoveryProgress& progress, Clock::duration elapsed)
{
    const double seconds = std::chrono::duration<double>(elapsed).count();
    return "Gendanner: " + percent(share(progress.bytesDone, progress.bytesTotal)) + " af "
        + formatBytes(progress.bytesTotal) + ", "
        + rateText(seconds > 0 ? static_cast<double>(progress.bytesDone) / seconds : 0) + ", "
        + std::to_string(progress.filesDone) + " af " + std::to_string(progress.filesTotal)
        + " filer";
}
