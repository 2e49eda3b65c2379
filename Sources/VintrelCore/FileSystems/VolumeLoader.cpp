#include "VintrelCore/FileSystems/VolumeLoader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/Model/SourceEnd.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <utility>

namespace VolumeLoader {

VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot,
    std::uint64_t partitionSize, std::vector<const Volume*> volumes)
{
    const auto* const reader = readerFor(type);
    if (reader == nullptr || reader->load == nullptr)
        return {};
    auto loaded = reader->load(
        { source, offset, origin, progress, boot, partitionSize, std::move(volumes) });
    for (const auto& volume : loaded) {
        noteSourceEnd(*volume, source.size());
        limitSizes(*volume, source.size());
    }
    return loaded;
}

void readAgain(DiskSource& source, VolumeList& volumes, WorkProgress* progress)
{
    for (auto& volume : volumes) {
        const auto* const reader = readerFor(volume->type);
        if (reader == nullptr || reader->readAgain == nullptr || isCancelled(progress))
            continue;
        auto better = reader->readAgain(source, *volume, progress);
        if (!better)
            continue;
        noteSourceEnd(*better, source.size());
        limitSizes(*better, source.size());
        volume = std::move(better);
    }
}

} // namespace VolumeLoader
