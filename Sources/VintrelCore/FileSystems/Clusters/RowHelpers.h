#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Rebuilds volumes from directory sectors that no volume has, with a parser's `looseSectors` and
/// `rebuild`. `DeepInfo` is what its volumes keep.
template <class DeepInfo, class LooseSectors, class Rebuild>
void rebuildFromDirectories(LostVolumeSearch& search, std::span<const std::uint64_t> sectors,
    LooseSectors looseSectors, Rebuild rebuild)
{
    const auto loose = looseSectors(looseSectors(sectors, search.known()), search.found());
    if (loose.empty() || search.isCancelled())
        return;
    report(search.progress(), 0, "Genopbygger filsystem ud fra mappesektorer …");
    DirectoryHints hints { .heaps = {}, .volumeStarts = {}, .carved = search.finds().carved };
    for (const auto* volume : search.volumes()) {
        hints.volumeStarts.push_back(volume->offset);
        if (const auto* info = dynamic_cast<const DeepInfo*>(volume->deepContext.get()))
            hints.heaps.push_back(info->context->geometry().heap);
    }
    for (auto& volume : rebuild(search.source(), loose, hints, search.progress()))
        search.keep(std::move(volume));
}

/// Says on a volume how many sectors are missing of its FAT, and of the directories that were read.
inline void noteUnreadable(
    Volume& volume, std::uint64_t sectorsOfFAT, std::uint64_t sectorsOfDirectories)
{
    const auto add
        = [&](std::uint64_t sectors, std::string_view structure, std::string_view effect) {
              if (sectors == 0)
                  return;
              volume.notes.push_back(std::string(structure) + " har " + std::to_string(sectors)
                  + (sectors == 1 ? " ulæselig sektor – " : " ulæselige sektorer – ")
                  + std::string(effect));
          };
    add(sectorsOfFAT, "FAT-tabellen", "klyngekæder kan mangle, og pladsen kan være genbrugt.");
    add(sectorsOfDirectories, "Mapperne", "filer kan mangle.");
}

/// Says on a volume that directories seem to end in a lost sector, and hold more behind it.
inline void noteBrokenDirectories(Volume& volume, std::size_t count)
{
    if (count > 0)
        volume.notes.push_back((count == 1 ? "En mappe" : std::to_string(count) + " mapper")
            + " er afbrudt midt i – dyb scanning kan finde flere filer.");
}

/// Adds what lies before the clusters of a volume, and the clusters that are in use, cut at the
/// source's end.
inline void addUsedClusters(const Volume& volume, const ClusterHeap& heap, const ClusterBits& used,
    std::uint64_t sourceSize, std::vector<ByteRange>& ranges)
{
    const auto add = [&](std::uint64_t start, std::uint64_t end) {
        if (start < std::min(end, sourceSize))
            ranges.push_back({ start, std::min(end, sourceSize) });
    };
    add(volume.offset, heap.offset);
    used.forEachRun([&](std::uint32_t first, std::uint64_t count) {
        if (heap.contains(first)) // a bitmap may go on behind the last cluster
            add(heap.offsetOf(first),
                heap.offsetOf(first)
                    + std::min(count, heap.clustersFrom(first)) * heap.clusterSize);
    });
}

/// The folders that `find(volume)` gives for the volumes of these types; none for those where it
/// gives none.
template <class Find>
std::vector<ExtraFolder> lostFolders(const VolumeList& volumes,
    std::span<const FileSystemType> types, const WorkProgress* progress, Find find)
{
    std::vector<ExtraFolder> folders;
    for (const auto& volume : volumes) {
        if (isCancelled(progress))
            break;
        if (std::ranges::count(types, volume->type) == 0)
            continue;
        report(progress, 0, "Søger efter tabte mappefragmenter …");
        if (auto folder = find(*volume))
            folders.push_back({ volume.get(), std::move(folder) });
    }
    return folders;
}
