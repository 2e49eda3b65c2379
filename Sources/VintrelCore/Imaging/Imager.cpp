#include "VintrelCore/Imaging/Imager.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/AlignedBuffer.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Imaging/CopyRates.h"
#include "VintrelCore/Imaging/FailureMarker.h"
#include "VintrelCore/Imaging/ImageFile.h"
#include "VintrelCore/Imaging/MapfileSaver.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <span>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Status = RangeMap::Status;

constexpr std::chrono::milliseconds refreshInterval { 250 };
constexpr std::chrono::milliseconds pauseInterval { 200 };

/// What the sector pass and its repetitions read.
constexpr Status failedPieces[] = { Status::nonTrimmed, Status::nonScraped };
constexpr Status badSectors[] = { Status::bad };

} // namespace

/// One call of run(), once its image is open.
class DiskImager::Session {
public:
    Session(DiskImager& imager, ImageFile image, const Update& onUpdate, const Warning& warn)
        : imager_(imager)
        , source_(imager.source_)
        , map_(*imager.map_)
        , image_(std::move(image))
        , onUpdate_(onUpdate)
        , warn_(warn)
        , sectorSize_(imager.source_.sectorSize())
        , readSize_(static_cast<std::size_t>(roundDown(
              std::max<std::uint64_t>(sectorSize_, imager.options_.chunkSize), sectorSize_)))
        , memory_(readSize_)
        , buffer_(memory_.bytes())
        , rates_(start_, map_.total(Status::finished))
        , failures_(map_, source_)
        , saver_(map_, image_, imager.mapPath_, warn_, start_)
    {
    }

    void perform()
    {
        bool isGoingOn = prepare()
            && copyPass({ 1, "Kopierer (hurtig gennemgang)" }, Damage::leapAway)
            && copyPass({ 2, "Kopierer oversprungne områder" }, Damage::stepOver)
            && sectorPass({ 3, "Læser vanskelige områder sektor for sektor" }, failedPieces);
        const int retries = imager_.options_.retries;
        for (int attempt = 1; isGoingOn && attempt <= retries; ++attempt)
            isGoingOn = sectorPass({ 3 + attempt,
                                       "Nyt forsøg på dårlige sektorer (" + std::to_string(attempt)
                                           + "/" + std::to_string(retries) + ")" },
                badSectors);
        finish();
    }

    /// Keeps what was copied by a run that cannot go on.
    void abandon() { save(); }

private:
    struct Pass {
        int number;
        std::string phase;
    };

    /// What a copy pass does behind a piece that could not be read.
    enum class Damage { leapAway, stepOver };

    /// Makes the image as long as the source. False when the run has to end.
    bool prepare()
    {
        imager_.distrustBeyond(image_.sizeAtOpening());
        // The longer image makes every claim of a mapfile credible, so a wrong one must be gone
        // before.
        const bool isReady = (!imager_.isMapfileWrong() || save()) && image_.growTo(source_.size());
        hasWriteFailed_ = hasWriteFailed_ || !isReady;
        return !hasWriteFailed_;
    }

    /// Copies what has not been tried. True when nothing of that is left behind the last position;
    /// false when the run has to end.
    bool copyPass(const Pass& pass, Damage damage)
    {
        begin(pass);
        const std::uint64_t maxSkip = imager_.options_.maxSkip;
        std::uint64_t position = 0;
        std::uint64_t skip = std::min<std::uint64_t>(readSize_, maxSkip);
        while (const auto stretch = map_.first(Status::nonTried, position)) {
            if (!mayReadAt(stretch->position))
                return false;
            const std::uint64_t end = unitEnd(stretch->position, readSize_, stretch->end());
            position = end;
            if (copy({ stretch->position, end })) {
                skip = std::min<std::uint64_t>(readSize_, maxSkip);
            } else {
                markFailed({ stretch->position, end - stretch->position, stretch->status },
                    Status::nonTrimmed);
                if (damage == Damage::leapAway) {
                    position += std::min(skip, source_.size() - position);
                    skip = skip > maxSkip / 2 ? maxSkip : 2 * skip;
                }
            }
            refresh();
            if (mustEnd())
                return false;
        }
        return true;
    }

    /// Reads the stretches of these statuses sector by sector. False when the run has to end.
    bool sectorPass(const Pass& pass, std::span<const Status> statuses)
    {
        begin(pass);
        std::uint64_t position = 0;
        while (const auto stretch = firstOf(statuses, position)) {
            if (!mayReadAt(stretch->position))
                return false;
            const auto sectors = wholeSectors(
                { stretch->position, unitEnd(stretch->position, readSize_, stretch->end()) });
            const auto run = readSectors(sectors);
            store({ sectors.start, run.end });
            position = std::max(stretch->position, run.end);
            if (run.endsAtBadSector) {
                const std::uint64_t end = unitEnd(position, sectorSize_, stretch->end());
                markFailed({ position, end - position, stretch->status }, Status::bad);
                position = end;
            }
            refresh();
            if (mustEnd())
                return false;
        }
        return true;
    }

    void finish()
    {
        const bool isInPlace = image_.isAt(imager_.imagePath_);
        if (!isInPlace)
            disownImage();
        const bool canGoOn = save() && isInPlace;
        const bool isStopped = imager_.isCancelled_ || hasSourceLeft_;
        {
            const CVintrel::MutexLock guard(imager_.lock_);
            auto& stats = imager_.stats_;
            stats.finished = true;
            stats.phase = isStopped ? "Stoppet" : "Færdig";
            if (hasWriteFailed_)
                stats.message = "Skrivning til billedfilen mislykkedes (er destinationen fuld?).";
            else if (isStopped)
                stats.message = "Stoppet. Du kan fortsætte senere"
                    + (canGoOn ? " – fremskridtet er gemt i "
                                + std::filesystem::path(imager_.mapPath_).filename().string()
                               : std::string())
                    + ".";
        }
        update(Clock::now());
    }

    /// The image was moved or replaced. Of another file in its place nothing is finished: a later
    /// run would believe the mapfile.
    void disownImage()
    {
        struct stat status { };
        if (::stat(imager_.imagePath_.c_str(), &status) == 0)
            map_.set(0, source_.size(), Status::nonTried);
        if (warn_)
            warn_(imager_.imagePath_ + " er ikke længere den fil, der blev skrevet til");
    }

    void begin(const Pass& pass)
    {
        const CVintrel::MutexLock guard(imager_.lock_);
        imager_.stats_.phase = pass.phase;
        imager_.stats_.pass = pass.number;
    }

    /// Waits while the imager is paused. False when the run has to end.
    bool mayReadAt(std::uint64_t position)
    {
        while (imager_.isPaused_ && !mustEnd()) {
            std::this_thread::sleep_for(pauseInterval);
            refresh();
        }
        const CVintrel::MutexLock guard(imager_.lock_);
        imager_.stats_.position = position;
        return !mustEnd();
    }

    bool mustEnd() const { return imager_.isCancelled_ || hasWriteFailed_ || hasSourceLeft_; }

    std::optional<RangeMap::Block> firstOf(
        std::span<const Status> statuses, std::uint64_t from) const
    {
        std::optional<RangeMap::Block> first;
        for (const auto status : statuses)
            if (const auto stretch = map_.first(status, from);
                stretch && (!first || stretch->position < first->position))
                first = stretch;
        return first;
    }

    /// Another tool's mapfile may draw its borders within sectors; those are read, and so rescued,
    /// whole.
    ByteRange wholeSectors(ByteRange piece) const
    {
        return { roundDown(piece.start, sectorSize_),
            unitEnd(piece.end - 1, sectorSize_, source_.size()) };
    }

    /// Copies a piece that lies within one read size. False when it cannot be read.
    bool copy(ByteRange piece)
    {
        piece = wholeSectors(piece);
        if (!source_.tryRead(
                piece.start, buffer_.first(static_cast<std::size_t>(piece.end - piece.start))))
            return false;
        store(piece);
        return true;
    }

    void markFailed(const RangeMap::Block& range, Status status)
    {
        failures_.mark(range, status);
        hasSourceLeft_ = source_.hasLeft();
    }

    struct SectorRun {
        std::uint64_t end = 0; ///< of what was read
        bool endsAtBadSector = false;
    };

    /// Reads sectors into the buffer one at a time, up to one that cannot be read or until
    /// something else is due.
    SectorRun readSectors(ByteRange sectors)
    {
        std::uint64_t position = sectors.start;
        do {
            const auto sector = buffer_.subspan(static_cast<std::size_t>(position - sectors.start),
                static_cast<std::size_t>(
                    std::min<std::uint64_t>(sectorSize_, sectors.end - position)));
            if (!source_.tryRead(position, sector))
                return { .end = position, .endsAtBadSector = true };
            position += sector.size();
        } while (position < sectors.end && !mustEnd() && !imager_.isPaused_
            && !isRefreshDue(Clock::now()));
        return { .end = position, .endsAtBadSector = false };
    }

    /// Writes the buffer's beginning to this place of the image.
    void store(ByteRange range)
    {
        if (range.start == range.end)
            return;
        const auto bytes = buffer_.first(static_cast<std::size_t>(range.end - range.start));
        const std::size_t written = image_.write(range.start, bytes);
        if (written < bytes.size())
            hasWriteFailed_ = true;
        else
            lastSuccess_ = Clock::now();
        map_.set(range.start, written, Status::finished);
    }

    /// Saves the mapfile, behind the data that it speaks of. Whether it is saved.
    bool save()
    {
        saver_.save(imager_.currentStats());
        hasWriteFailed_ = hasWriteFailed_ || saver_.hasFlushFailed();
        if (saver_.isSaved())
            imager_.isMapfileStale_ = false;
        return saver_.isSaved();
    }

    bool isRefreshDue(Clock::time_point now) const { return now - lastRefresh_ >= refreshInterval; }

    void refresh()
    {
        const auto now = Clock::now();
        if (!isRefreshDue(now))
            return;
        update(now);
        if (saver_.isDue(Clock::now()))
            save();
    }

    /// Brings the statistics up to date and hands them out.
    void update(Clock::time_point now)
    {
        lastRefresh_ = now;
        const std::uint64_t rescued = map_.total(Status::finished);
        rates_.add(now, rescued);

        ImagingStats stats = imager_.currentStats(); // which only this thread changes
        stats.rescued = rescued;
        stats.bad = map_.total(Status::bad);
        stats.pending = map_.total(Status::nonTried) + map_.total(Status::nonTrimmed)
            + map_.total(Status::nonScraped);
        stats.total = source_.size();
        stats.readErrors = source_.readErrorCount();
        stats.currentRate = rates_.current();
        stats.averageRate = rates_.average();
        stats.elapsed = Seconds(now - start_).count();
        stats.sinceLastSuccess = Seconds(now - lastSuccess_).count();
        {
            const CVintrel::MutexLock guard(imager_.lock_);
            imager_.stats_ = stats;
        }
        onUpdate_(stats);
    }

    DiskImager& imager_;
    DiskSource& source_;
    RangeMap& map_;
    ImageFile image_;
    const Update& onUpdate_;
    const Warning& warn_;
    const std::uint32_t sectorSize_;
    const std::size_t readSize_; // whole sectors
    const AlignedBuffer memory_;
    const std::span<std::uint8_t> buffer_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point lastSuccess_ = start_;
    Clock::time_point lastRefresh_ = start_;
    CopyRates rates_;
    FailureMarker failures_;
    MapfileSaver saver_;
    bool hasWriteFailed_ = false;
    bool hasSourceLeft_ = false;
};

DiskImager::DiskImager(DiskSource& source, std::string imagePath, ImagingOptions options)
    : source_(source)
    , imagePath_(std::move(imagePath))
    , mapPath_(RangeMap::pathFor(imagePath_))
    , options_(options)
{
    struct stat status { };
    if (::stat(imagePath_.c_str(), &status) == 0)
        map_ = RangeMap::read(mapPath_, source.size());
    if (map_) {
        distrustBeyond(static_cast<std::uint64_t>(status.st_size));
    } else {
        map_ = std::make_unique<RangeMap>(source.size());
        isMapfileStale_ = true;
    }
}

bool DiskImager::isResuming() const { return map_->total(Status::nonTried) < source_.size(); }

void DiskImager::run(const Update& onUpdate, const Warning& warn)
{
    isCancelled_ = false;
    {
        const CVintrel::MutexLock guard(lock_);
        stats_.finished = false;
        stats_.message.reset();
    }
    auto image = ImageFile::open(imagePath_, mapPath_, source_);
    if (image) {
        Session session(*this, std::move(*image), onUpdate, warn);
        try {
            session.perform();
        } catch (const std::bad_alloc&) {
            session.abandon();
            throw;
        }
        return;
    }
    {
        const CVintrel::MutexLock guard(lock_);
        stats_.message = "Kunne ikke oprette billedfilen: " + image.error().message();
        stats_.finished = true;
    }
    onUpdate(currentStats());
}

ImagingStats DiskImager::currentStats() const
{
    const CVintrel::MutexLock guard(lock_);
    return stats_;
}

/// Whether a later run would believe a mapfile that is not this run's. Whatever else has its name,
/// a folder too, does no harm.
bool DiskImager::isMapfileWrong() const
{
    const auto believed = isMapfileStale_ ? RangeMap::read(mapPath_, source_.size()) : nullptr;
    return believed && believed->total(Status::nonTried) < source_.size();
}

/// An image that is shorter than its mapfile says has lost what lay there.
void DiskImager::distrustBeyond(std::uint64_t imageSize)
{
    while (const auto lost = map_->first(Status::finished, imageSize)) {
        map_->set(lost->position, lost->size, Status::nonTried);
        isMapfileStale_ = true;
    }
}
