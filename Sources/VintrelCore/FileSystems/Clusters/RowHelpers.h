#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cstdint>
#include <span>
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
