#include "VintrelCore/Scanning/DeepScan.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/SweepWindow.h"
#include "VintrelCore/FileSystems/StructureFinder.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr std::size_t sectorSize = SweptSector::size;
constexpr std::size_t headSize = 64; // what the carver is shown

constexpr std::chrono::milliseconds reportInterval { 300 };
constexpr std::chrono::milliseconds rateInterval { 900 };

/// Tells the user of the progress, seldom enough that it costs nothing.
class Reporter {
public:
    Reporter(const DiskSource& source, const std::function<void(const DeepScanStats&)>& onUpdate)
        : source_(source)
        , onUpdate_(onUpdate)
    {
        stats.total = source.size();
    }

    DeepScanStats stats;

    void report(const DeepScanResult& result, std::uint64_t position, bool isLast)
    {
        const auto now = Clock::now();
        if (!onUpdate_ || (!isLast && now - lastReport_ <= reportInterval))
            return;
        lastReport_ = now;
        if (now - rateStart_ > rateInterval) {
            const std::chrono::duration<double> interval = now - rateStart_;
            stats.rate = static_cast<double>(position - rateStartPosition_) / interval.count();
            rateStart_ = now;
            rateStartPosition_ = position;
        }
        stats.position = position;
        stats.filesFound = result.carved.size();
        stats.bootSectors = result.boots.size() + result.hfsHeaders.size() + result.nxsb.size();
        stats.mftRecords = result.mftRecords.size();
        stats.badSectors = source_.badSectorCount();
        stats.elapsed = std::chrono::duration<double>(now - begin_).count();
        onUpdate_(stats);
    }

private:
    using Clock = std::chrono::steady_clock;

    const DiskSource& source_;
    const std::function<void(const DeepScanStats&)>& onUpdate_;
    const Clock::time_point begin_ = Clock::now();
    Clock::time_point lastReport_ = begin_;
    Clock::time_point rateStart_ = begin_;
    std::uint64_t rateStartPosition_ = 0;
};

} // namespace

DeepScanResult DeepScanner::run(
    WorkProgress* reporter, const std::function<void(const DeepScanStats&)>& onUpdate) const
{
    DeepScanResult result;
    StructureFinder structures(source_, result);
    SweepWindow window(source_);
    std::optional<Carver> carver;
    if (options_.carve)
        carver.emplace(source_, options_.categories, &window);
    Reporter progress(source_, onUpdate);

    std::uint64_t position = 0;
    std::uint64_t carveFrom = 0; // what lies before is inside a file that was found
    while (position < source_.size() && !isCancelled(reporter)) {
        const auto chunk = window.moveTo(position).span();
        if (carver)
            carver->windowMoved(position);
        for (std::size_t at = 0; at < chunk.size(); at += sectorSize) {
            const std::uint64_t offset = position + at;
            if (options_.findVolumes && chunk.size() - at >= sectorSize)
                structures.look({ chunk.subspan(at), offset });
            if (!carver || offset < carveFrom)
                continue;
            auto found
                = carver->check(chunk.subspan(at, std::min(headSize, chunk.size() - at)), offset);
            if (!found)
                continue;
            // A length beyond the source is not to be believed: it must not hide all that follows.
            if (found->exact && found->size <= source_.size() - offset)
                carveFrom = offset + found->size;
            ++progress.stats.byExtension[found->ext];
            result.carved.push_back(std::move(*found));
        }
        position += chunk.size();
        progress.report(result, position, false);
    }
    result.completed = position >= source_.size();
    result.scannedUpTo = position;
    progress.report(result, position, true);
    return result;
}
