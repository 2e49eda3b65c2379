#include "VintrelCore/FileSystems/VolumeLoader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/Model/SourceEnd.h"

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
    for (const auto& volume : loaded)
        noteSourceEnd(*volume, source.size());
    return loaded;
}

} // namespace VolumeLoader
