#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/SweepWindow.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/Scanner.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr std::size_t sectorSize
    = 512; // boot sectors are found at any multiple, whatever the disk's own sectors
constexpr std::size_t headSize = 64; // what the carver is shown
constexpr std::uint64_t apfsBlockSize = 4096;
constexpr std::uint64_t hfsHeaderOffset = 1024; // from the start of the volume

constexpr std::chrono::milliseconds reportInterval { 300 };
constexpr std::chrono::milliseconds rateInterval { 900 };

/// Finds out what lies in one sector after the other, and keeps it.
class StructureFinder {
public:
    StructureFinder(DiskSource& source, DeepScanResult& result)
        : source_(source)
        , result_(result)
    {
    }

    /// The first match wins. `chunk` holds what is in memory from `offset` - `at` on; a whole
    /// sector lies at `at`.
    void look(ByteView chunk, std::size_t at, std::uint64_t offset)
    {
        const auto sector = ByteView(chunk.span().subspan(at, sectorSize));
        const auto* const bytes = sector.data();
        if (bytes[28] == apfsTreeSubtype && isAPFSAligned(offset) && isAPFSLeaf(chunk, at, offset))
            result_.apfsLeafNodes.push_back(offset);
        else if (FATParser::looksLikeDirectorySector(sector))
            result_.fatDirSectors.push_back(offset);
        else if (sector.matches("FILE", 0)) {
            if (NTFSParser::looksLikeRecord(sector.sub(0, 48)))
                result_.mftRecords.push_back(offset);
        } else if (mayBeBootSector(sector)) {
            if (const auto type = FSProbe::detectBootSector(sector))
                result_.boots.push_back(
                    { offset, *type, *sector.load<std::array<std::uint8_t, sectorSize>>(0) });
        } else if (bytes[0] == 'H' && (bytes[1] == '+' || bytes[1] == 'X') && bytes[2] == 0
            && offset >= hfsHeaderOffset && FSProbe::isHFSPlusHeader(sector.sub(0, 64))) {
            result_.hfsHeaders.push_back(offset - hfsHeaderOffset);
        } else if (bytes[24] == apfsContainerType && sector.matches("NXSB", 32)) {
            result_.nxsb.push_back(offset);
            apfsAlignments_.insert(offset % apfsBlockSize);
        } else if (mayBeExFATDirectory(bytes)
            && ExFATParser::looksLikeDirectorySector(chunk, static_cast<std::int64_t>(at))) {
            result_.exfatDirSectors.push_back(offset);
        }
    }

private:
    static constexpr std::uint8_t apfsTreeSubtype = 14;
    static constexpr std::uint8_t apfsContainerType = 1;

    static bool mayBeBootSector(ByteView sector)
    {
        return (sector.data()[510] == 0x55 && sector.data()[511] == 0xAA)
            || sector.matches("NTFS", 3) || sector.matches("EXFA", 3);
    }

    /// Every type that an entry can have, deleted or not, leaves at most 5 in the low bits. Both
    /// are looked at in one step, since a branch that random data takes now and then costs more.
    static bool mayBeExFATDirectory(const std::uint8_t* sector)
    {
        constexpr unsigned lowBits = 0x1F;
        constexpr std::size_t secondEntry = 32;
        return std::max(sector[0] & lowBits, sector[secondEntry] & lowBits) <= 5
            && (sector[0] & 0x7F) != 0;
    }

    /// Blocks lie at multiples of their size, counted from the source's start or from that of a
    /// container: partitions of old disks begin at odd sectors.
    bool isAPFSAligned(std::uint64_t offset) const
    {
        return apfsAlignments_.contains(offset % apfsBlockSize);
    }

    bool isAPFSLeaf(ByteView chunk, std::size_t at, std::uint64_t offset)
    {
        if (at + apfsBlockSize <= chunk.size())
            return APFSParser::looksLikeFSTreeLeaf(
                chunk, static_cast<std::int64_t>(at), apfsBlockSize);
        return APFSParser::looksLikeFSTreeLeaf(
            source_.read(offset, apfsBlockSize, ReadMode::thorough), 0, apfsBlockSize);
    }

    DiskSource& source_;
    DeepScanResult& result_;
    std::set<std::uint64_t> apfsAlignments_ { 0 };
};

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
                structures.look(chunk, at, offset);
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
