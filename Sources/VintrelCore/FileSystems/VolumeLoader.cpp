#include "VintrelCore/FileSystems/VolumeLoader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/Model/SourceEnd.h"

namespace VolumeLoader {

VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot,
    std::uint64_t partitionSize)
{
    const auto* const reader = readerFor(type);
    if (reader == nullptr || reader->load == nullptr)
        return {};
    auto volumes = reader->load({ source, offset, origin, progress, boot, partitionSize });
    for (const auto& volume : volumes)
        noteSourceEnd(*volume, source.size());
    return volumes;
}

} // namespace VolumeLoader
