// What the structures that a sweep found say of volumes that no table names.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/Scanner.h"

#include <algorithm>

namespace {

constexpr std::uint64_t hfsHeaderOffset = 1024;  // from the volume's start
constexpr std::uint64_t hfsHeaderFromEnd = 1024; // of the alternate header
constexpr std::int64_t hfsHeaderSize = 512;
constexpr std::uint64_t exfatBackupSector = 12;

bool isFAT(FileSystemType type)
{
    return type == FileSystemType::fat12 || type == FileSystemType::fat16
        || type == FileSystemType::fat32;
}

/// The start of the volume that a boot sector at `offset` is the backup of; none for types without
/// one, and where it would lie before the source.
std::optional<std::uint64_t> startByBackup(const FoundBoot& boot)
{
    const ByteView sector(boot.sector);
    const std::uint64_t bytesPerSector = boot.type == FileSystemType::exfat
        ? std::uint64_t { 1 } << (sector.u8(108) % 64)
        : sector.u16le(11);
    if (boot.type == FileSystemType::ntfs) { // in the sector behind the last one that it counts
        const std::uint64_t sectors = sector.u64le(40);
        const std::uint64_t end = boot.offset + bytesPerSector;
        if (bytesPerSector == 0 || sectors >= end / bytesPerSector)
            return std::nullopt;
        return end - (sectors + 1) * bytesPerSector;
    }
    std::uint64_t place = 0; // in sectors from the start
    if (boot.type == FileSystemType::exfat)
        place = exfatBackupSector;
    else if (boot.type == FileSystemType::fat32)
        place = sector.u16le(50);
    if (place == 0 || place * bytesPerSector > boot.offset)
        return std::nullopt;
    return boot.offset - place * bytesPerSector;
}

bool isConfirmed(DiskSource& source, const FoundBoot& boot, std::uint64_t start)
{
    if (isFAT(boot.type))
        return FATParser::isConfirmed(source, start, boot.sector);
    if (boot.type == FileSystemType::exfat)
        return ExFATParser::isConfirmed(source, start, boot.sector);
    return boot.type == FileSystemType::ntfs; // its parser wants to see an MFT
}

class LostVolumes {
public:
    LostVolumes(DiskSource& source, const DeepScanResult& result, const VolumeList& known,
        WorkProgress* progress)
        : source_(source)
        , result_(result)
        , known_(known)
        , progress_(progress)
    {
    }

    VolumeList build()
    {
        // First those that lie at their own place: a copy is asked only where there is no such one.
        for (const auto& boot : result_.boots)
            if (!isCancelled(progress_) && !isBackup(boot))
                tryBoot(boot, boot.offset,
                    "Dyb scanning, boot-sektor ved " + std::to_string(boot.offset));
        for (const auto& boot : result_.boots)
            if (const auto start = startByBackup(boot); start && !isCancelled(progress_))
                tryBoot(boot, *start, "Dyb scanning, sikkerhedskopi af boot-sektor");
        for (const bool isAlternate : { false, true })
            for (const auto place : result_.hfsHeaders)
                if (!isCancelled(progress_))
                    tryHFSPlus(place, isAlternate);
        for (const auto superblock : result_.nxsb)
            if (!isCancelled(progress_))
                tryAPFS(superblock);
        rebuildNTFS();
        rebuildFromDirectories<FATDeepInfo>(
            result_.fatDirSectors, FATParser::looseSectors, FATParser::rebuild);
        rebuildFromDirectories<ExFATDeepInfo>(
            result_.exfatDirSectors, ExFATParser::looseSectors, ExFATParser::rebuild);
        return std::move(built_);
    }

private:
    bool isKnown(FileSystemType type, std::uint64_t start) const
    {
        const auto isSame = [&](const std::unique_ptr<Volume>& volume) {
            return volume->offset == start
                && (volume->type == type || (isFAT(volume->type) && isFAT(type)));
        };
        return std::ranges::any_of(known_, isSame) || std::ranges::any_of(built_, isSame);
    }

    /// Asked first, because a backup a few sectors into its volume can pass for a primary one: what
    /// follows the true root by as many sectors may be more of the root.
    bool isBackup(const FoundBoot& boot) const
    {
        const auto start = startByBackup(boot);
        return start
            && (isKnown(boot.type, *start)
                || (boot.type != FileSystemType::ntfs && isConfirmed(source_, boot, *start)));
    }

    void report(FileSystemType type, std::string_view what) const
    {
        if (progress_ != nullptr)
            progress_->report(0,
                "Undersøger fundet " + std::string(displayName(type)) + std::string(what) + " …");
    }

    void tryBoot(const FoundBoot& boot, std::uint64_t start, const std::string& origin)
    {
        if (isKnown(boot.type, start) || taken_ / maxOverlap >= source_.size()
            || !isConfirmed(source_, boot, start))
            return;
        report(boot.type, "-filsystem");
        for (auto& volume :
            VolumeLoader::load(source_, boot.type, start, origin, progress_, boot.sector))
            keep(std::move(volume));
    }

    /// `place`: where the volume begins by the header's place as a primary one.
    void tryHFSPlus(std::uint64_t place, bool isAlternate)
    {
        const std::uint64_t header = place + hfsHeaderOffset;
        const auto bytes = source_.read(header, hfsHeaderSize, ReadMode::thorough);
        if (!isAlternate) {
            if (!isKnown(FileSystemType::hfsplus, place)
                && HFSPlusParser::isConfirmed(source_, place, bytes)) {
                report(FileSystemType::hfsplus, "-filsystem");
                keep(HFSPlusParser::parse(source_, place,
                    "Dyb scanning, volumeheader ved " + std::to_string(header), progress_));
            }
            return;
        }
        const std::uint64_t blockSize = ByteView(bytes).u32be(40);
        const std::uint64_t size = blockSize * ByteView(bytes).u32be(44);
        const std::uint64_t end = header + hfsHeaderFromEnd;
        // The volume may be up to a block longer than its blocks.
        for (std::uint64_t rest = 0; rest < blockSize && size + rest <= end; rest += 512) {
            const std::uint64_t start = end - size - rest;
            if (isKnown(FileSystemType::hfsplus, start))
                return;
            if (!HFSPlusParser::isConfirmed(source_, start, bytes))
                continue;
            report(FileSystemType::hfsplus, "-filsystem");
            if (keep(HFSPlusParser::parse(source_, start,
                    "Dyb scanning, sikkerhedskopi af volumeheader", progress_, ByteView(bytes))))
                return;
        }
    }

    void tryAPFS(std::uint64_t superblock)
    {
        const auto start = APFSParser::containerStart(source_, superblock);
        const auto isOfIt = [&](const std::unique_ptr<Volume>& volume) {
            return APFSParser::isInContainer(*volume, *start);
        };
        if (!start || std::ranges::count(containers_, *start) != 0
            || std::ranges::any_of(known_, isOfIt))
            return;
        containers_.push_back(*start);
        report(FileSystemType::apfs, "-container");
        for (auto& volume : APFSParser::parseFromSuperblock(source_, superblock,
                 "Dyb scanning, container-superblok ved " + std::to_string(superblock), progress_))
            keep(std::move(volume));
    }

    void rebuildNTFS()
    {
        auto loose = NTFSParser::looseRecords(result_.mftRecords, known_);
        loose = NTFSParser::looseRecords(loose, built_);
        if (loose.empty() || isCancelled(progress_))
            return;
        if (progress_ != nullptr)
            progress_->report(0, "Genopbygger NTFS-filsystem ud fra MFT-poster …");
        NTFSParser::RebuildHints hints {
            .geometries = {}, .volumes = {}, .starts = {}, .carved = result_.carved
        };
        const auto addStart = [&](std::uint64_t start) {
            if (hints.starts.size() < maxHints && std::ranges::count(hints.starts, start) == 0)
                hints.starts.push_back(start);
        };
        const auto addHint = [&](const std::optional<NTFSGeometry>& geometry) {
            const auto isSame = [&](const NTFSGeometry& other) {
                return other.base == geometry->base && other.clusterSize == geometry->clusterSize;
            };
            if (geometry && hints.geometries.size() < maxHints
                && std::ranges::none_of(hints.geometries, isSame))
                hints.geometries.push_back(*geometry);
        };
        for (const auto* volumes : { &known_, &std::as_const(built_) })
            for (const auto& volume : *volumes) {
                addStart(volume->offset);
                if (const auto* info
                    = dynamic_cast<const NTFSDeepInfo*>(volume->deepContext.get())) {
                    addHint(info->geometry);
                    hints.volumes.push_back(info);
                }
            }
        for (const auto& boot : result_.boots) {
            if (boot.type != FileSystemType::ntfs)
                continue;
            addHint(NTFSGeometry::from(boot.sector, boot.offset));
            if (const auto start = startByBackup(boot))
                addHint(NTFSGeometry::from(boot.sector, *start));
        }
        for (auto& volume : NTFSParser::rebuild(source_, loose, hints, progress_))
            keep(std::move(volume));
    }

    /// From directory sectors, with a parser's `looseSectors` and `rebuild`.
    template <class Info, class Loose, class Rebuild>
    void rebuildFromDirectories(
        std::span<const std::uint64_t> sectors, Loose looseSectors, Rebuild rebuild)
    {
        const auto loose = looseSectors(looseSectors(sectors, known_), built_);
        if (loose.empty() || isCancelled(progress_))
            return;
        if (progress_ != nullptr)
            progress_->report(0, "Genopbygger filsystem ud fra mappesektorer …");
        DirectoryHints hints { .heaps = {}, .volumeStarts = {}, .carved = result_.carved };
        for (const auto* volumes : { &known_, &std::as_const(built_) })
            for (const auto& volume : *volumes) {
                hints.volumeStarts.push_back(volume->offset);
                if (const auto* info = dynamic_cast<const Info*>(volume->deepContext.get()))
                    hints.heaps.push_back(info->context->geometry().heap);
            }
        for (auto& volume : rebuild(source_, loose, hints, progress_))
            keep(std::move(volume));
    }

    bool keep(std::unique_ptr<Volume> volume)
    {
        if (!volume)
            return false;
        if (volume->offset < source_.size())
            taken_ += std::min(volume->size, source_.size() - volume->offset);
        built_.push_back(std::move(volume));
        return true;
    }

    static constexpr std::size_t maxHints = 64;

    /// So many times over the source is covered with volumes from boot sectors, as by formatting it
    /// again and again. More are made up, and each would take the memory of an allocation table.
    static constexpr std::uint64_t maxOverlap = 16;

    DiskSource& source_;
    const DeepScanResult& result_;
    const VolumeList& known_;
    WorkProgress* progress_;
    VolumeList built_;
    std::uint64_t taken_
        = 0; ///< bytes of the source in the volumes that were built, each for itself
    std::vector<std::uint64_t> containers_;
};

} // namespace

VolumeList DeepScanner::buildVolumes(DiskSource& source, const DeepScanResult& result,
    const VolumeList& known, WorkProgress* progress)
{
    return LostVolumes(source, result, known, progress).build();
}

std::vector<DeepScanner::ExtraFolder> DeepScanner::extraFolders(DiskSource& source,
    const VolumeList& volumes, const DeepScanResult& result, WorkProgress* progress)
{
    std::vector<ExtraFolder> folders;
    const auto fatSectors = FATParser::looseSectors(result.fatDirSectors, volumes);
    const auto exfatSectors = ExFATParser::looseSectors(result.exfatDirSectors, volumes);
    for (const auto& volume : volumes) {
        if (isCancelled(progress))
            break;
        std::unique_ptr<FileNode> folder;
        if (isFAT(volume->type)) {
            if (progress != nullptr)
                progress->report(0, "Søger efter tabte mappefragmenter …");
            folder = FATParser::lostEntries(*volume, fatSectors, progress);
        } else if (volume->type == FileSystemType::exfat) {
            if (progress != nullptr)
                progress->report(0, "Søger efter tabte mappefragmenter …");
            folder = ExFATParser::lostEntries(*volume, exfatSectors, progress);
        } else if (volume->type == FileSystemType::apfs) {
            if (progress != nullptr)
                progress->report(0, "Søger efter slettede APFS-filer …");
            folder = APFSParser::lostFiles(source, *volume, result.apfsLeafNodes, progress);
        }
        if (folder)
            folders.push_back({ volume.get(), std::move(folder) });
    }
    return folders;
}
