#include "VintrelCore/Scanning/DeepScan.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/SweepWindow.h"
#include "VintrelCore/FileSystems/StructureFinder.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/SweepProgress.h"

#include <algorithm>

namespace {

constexpr std::size_t sectorSize = SweptSector::size;
constexpr std::size_t headSize = 64; // what the carver is shown

/// The finds whose bodies were not proved and in which no other find has begun so far.
class UnprovedFinds {
public:
    explicit UnprovedFinds(std::vector<CarvedFile>& files)
        : files_(files)
    {
    }

    void addLast()
    {
        if (!files_.back().isProved)
            open_.push_back(files_.size() - 1);
    }

    /// Whether only what comes next tells where the last find ends.
    bool hasOpenEnd() const { return !open_.empty() && files_[open_.back()].isOpenEnded; }

    /// Another find begins at `offset`, behind all others. Each find is looked at once here,
    /// however many lie inside it, and those that it goes beyond are forgotten.
    void interrupt(std::uint64_t offset)
    {
        for (const auto index : open_) {
            auto& file = files_[index];
            if (file.offset + file.size <= offset)
                continue;
            file.isInterrupted = true;
            if (file.isOpenEnded)
                file.size = offset - file.offset;
        }
        open_.clear();
    }

private:
    std::vector<CarvedFile>& files_;
    std::vector<std::size_t> open_; // their indices
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
    if (carver && options_.findTexts)
        carver->findTexts();
    if (carver && options_.noteBrokenHeads)
        carver->noteBrokenHeads(result.brokenHeads);
    using Clock = SweepProgress::Clock;
    SweepProgress progress(source_, onUpdate, Clock::now());

    std::uint64_t position = 0;
    std::uint64_t carveFrom = 0; // what lies before is inside a file that was proved
    UnprovedFinds unproved(result.carved);
    // Zeros are no structure and no beginning of a file.
    const auto nextChunk = [&](std::uint64_t from) {
        return std::max(from, roundDown(source_.nextData(from), SweepWindow::chunkSize));
    };
    while (position < source_.size() && !isCancelled(reporter)) {
        position = nextChunk(position);
        if (position >= source_.size())
            break;
        const auto chunk = window.moveTo(position).span();
        window.readAhead(nextChunk(position + chunk.size()));
        if (carver)
            carver->windowMoved(position);
        for (std::size_t at = 0; at < chunk.size(); at += sectorSize) {
            const std::uint64_t offset = position + at;
            if (options_.findVolumes && chunk.size() - at >= sectorSize)
                structures.look({ chunk.subspan(at), offset });
            if (!carver || offset < carveFrom)
                continue;
            const auto head = chunk.subspan(at, std::min(headSize, chunk.size() - at));
            auto found = carver->check(head, offset);
            // Archives and other files of a known length may hold programs.
            if (!found && unproved.hasOpenEnd() && carver->beginsProgram(head, offset))
                unproved.interrupt(offset);
            if (!found)
                continue;
            if (found->isProved)
                carveFrom = offset + found->size;
            progress.countFile(*found);
            unproved.interrupt(offset);
            result.carved.push_back(std::move(*found));
            unproved.addLast();
        }
        position += chunk.size();
        progress.report(result, position, Clock::now());
    }
    result.carvingRanOut = carver && carver->hasRunOut();
    result.completed = position >= source_.size();
    result.scannedUpTo = position;
    progress.report(result, position, Clock::now(), true);
    return result;
}
