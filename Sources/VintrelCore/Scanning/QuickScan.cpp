#include "VintrelCore/Scanning/QuickScan.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/FileSystems/VolumeLoader.h"
#include "VintrelCore/Model/ListingBudget.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <set>

namespace {

std::string labelOf(const PartitionEntry& entry)
{
    return entry.name.empty() ? "partition " + std::to_string(entry.index) : entry.name;
}

std::string originOf(const PartitionEntry& entry)
{
    return entry.scheme == "Ingen" ? entry.typeName : entry.scheme + ", " + labelOf(entry);
}

void reportReading(WorkProgress* progress, const PartitionEntry& entry, std::size_t entryCount)
{
    report(progress, static_cast<double>(entry.index - 1) / static_cast<double>(entryCount),
        "Læser " + std::string(displayName(*entry.detected)) + "-filsystemet på " + labelOf(entry)
            + " …");
}

} // namespace

namespace QuickScanner {

ScanResult run(DiskSource& source, WorkProgress* progress)
{
    report(progress, 0, "Læser partitionstabel …");
    ScanResult result { .layout = PartitionTable::read(source), .volumes = {}, .notes = {} };
    result.notes = result.layout.notes;

    // Damaged and hostile tables name one place many times; its files are listed once.
    std::set<std::uint64_t> loadedOffsets;
    ListingBudget budget(source.size());
    std::vector<const Volume*> loaded;
    const auto& entries = result.layout.entries;
    for (const auto& entry : entries) {
        if (isCancelled(progress))
            return result;
        if (!entry.detected || loadedOffsets.contains(entry.offset))
            continue;
        if (!budget.hasRoom()) {
            result.notes.emplace_back("Partitionerne rummer flere filer, end der er plads til på "
                                      "kilden. De sidste partitioner er ikke læst.");
            break;
        }
        const auto type = *entry.detected;
        if (const auto* reader = readerFor(type); reader && !reader->quickScanNote.empty()) {
            result.notes.emplace_back(reader->quickScanNote);
            continue;
        }
        const auto label = labelOf(entry);
        if (const auto encryption = FSProbe::encryptionAt(source, entry.offset);
            !encryption.empty()) {
            result.notes.push_back(label + " er krypteret med " + std::string(encryption)
                + ". Indholdet kan kun læses med nøglen.");
            continue;
        }
        reportReading(progress, entry, entries.size());
        auto volumes = VolumeLoader::load(source, type, entry.offset, originOf(entry), progress,
            std::nullopt, entry.size, loaded);
        if (volumes.empty())
            result.notes.push_back(std::string(displayName(type)) + "-filsystemet på " + label
                + " kunne ikke læses. Prøv dyb scanning.");
        else
            loadedOffsets.insert(entry.offset);
        for (auto& volume : volumes) {
            budget.count(*volume);
            loaded.push_back(volume.get());
            result.volumes.push_back(std::move(volume));
        }
    }
    report(progress, 1, "Læser partitionstabel …");
    return result;
}

void readDeepOnly(DiskSource& source, ScanResult& result, WorkProgress* progress)
{
    std::set<std::uint64_t> loadedOffsets;
    ListingBudget budget(source.size());
    for (const auto& volume : result.volumes)
        budget.count(*volume);
    const auto& entries = result.layout.entries;
    for (const auto& entry : entries) {
        const auto* const reader = entry.detected ? readerFor(*entry.detected) : nullptr;
        if (reader == nullptr || reader->quickScanNote.empty() || isCancelled(progress)
            || !budget.hasRoom() || !loadedOffsets.insert(entry.offset).second)
            continue;
        reportReading(progress, entry, entries.size());
        for (auto& volume : VolumeLoader::load(source, *entry.detected, entry.offset,
                 originOf(entry), progress, std::nullopt, entry.size)) {
            budget.count(*volume);
            result.volumes.push_back(std::move(volume));
        }
    }
}

} // namespace QuickScanner
