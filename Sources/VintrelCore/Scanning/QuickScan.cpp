#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/Scanner.h"

#include <set>

namespace VolumeLoader {

namespace {

VolumeList oneOrNone(std::unique_ptr<Volume> volume)
{
    VolumeList volumes;
    if (volume)
        volumes.push_back(std::move(volume));
    return volumes;
}

} // namespace

VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot)
{
    switch (type) {
    case FileSystemType::fat12:
    case FileSystemType::fat16:
    case FileSystemType::fat32:
        return oneOrNone(FATParser::parse(source, offset, origin, progress, boot));
    case FileSystemType::exfat:
        return oneOrNone(ExFATParser::parse(source, offset, origin, progress, boot));
    case FileSystemType::ntfs:
        return oneOrNone(NTFSParser::parse(source, offset, origin, progress, boot));
    case FileSystemType::hfsplus:
        return oneOrNone(HFSPlusParser::parse(source, offset, origin, progress));
    case FileSystemType::apfs:
        return APFSParser::parse(source, offset, origin, progress);
    case FileSystemType::ext: // known only so that the user can be told
    case FileSystemType::carved:
    case FileSystemType::unknown:
        break;
    }
    return {};
}

} // namespace VolumeLoader

namespace QuickScanner {

ScanResult run(DiskSource& source, WorkProgress* progress)
{
    const auto report = [&](double fraction, const std::string& message) {
        if (progress != nullptr)
            progress->report(fraction, message);
    };
    report(0, "Læser partitionstabel …");
    ScanResult result { .layout = PartitionTable::read(source), .volumes = {}, .notes = {} };
    result.notes = result.layout.notes;

    // Damaged and hostile tables name one place many times; its files are listed once.
    std::set<std::uint64_t> loadedOffsets;
    const auto& entries = result.layout.entries;
    for (const auto& entry : entries) {
        if (isCancelled(progress))
            return result;
        if (!entry.detected || loadedOffsets.contains(entry.offset))
            continue;
        const auto type = *entry.detected;
        if (type == FileSystemType::ext) {
            result.notes.emplace_back("ext-filsystemer understøttes kun via dyb scanning.");
            continue;
        }
        const std::string label
            = entry.name.empty() ? "partition " + std::to_string(entry.index) : entry.name;
        report(static_cast<double>(entry.index - 1) / static_cast<double>(entries.size()),
            "Læser " + std::string(displayName(type)) + "-filsystemet på " + label + " …");
        const std::string origin
            = entry.scheme == "Ingen" ? entry.typeName : entry.scheme + ", " + label;
        auto volumes = VolumeLoader::load(source, type, entry.offset, origin, progress);
        if (volumes.empty())
            result.notes.push_back(std::string(displayName(type)) + "-filsystemet på " + label
                + " kunne ikke læses. Prøv dyb scanning.");
        else
            loadedOffsets.insert(entry.offset);
        std::ranges::move(volumes, std::back_inserter(result.volumes));
    }
    report(1, "Læser partitionstabel …");
    return result;
}

} // namespace QuickScanner
