#include "VintrelCore/FileSystems/VolumeLoader.h"

#include "VintrelCore/FileSystems/FileSystems.h"

namespace VolumeLoader {

VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto* const reader = readerFor(type);
    if (reader == nullptr || reader->load == nullptr)
        return {};
    return reader->load({ source, offset, origin, progress, boot });
}

} // namespace VolumeLoader
