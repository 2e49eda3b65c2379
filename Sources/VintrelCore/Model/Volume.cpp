#include "VintrelCore/Model/Volume.h"

#include <atomic>

namespace {

std::int64_t nextVolumeID()
{
    static std::atomic<std::int64_t> last = 0;
    return ++last;
}

} // namespace

Volume::Volume(FileSystemType type, std::string label, std::uint64_t offset, std::uint64_t size,
    std::unique_ptr<FileNode> root, std::string origin)
    : type(type)
    , label(std::move(label))
    , offset(offset)
    , size(size)
    , root(std::move(root))
    , origin(std::move(origin))
    , id_(nextVolumeID())
{
}

std::string Volume::title() const
{
    std::string title = label.empty() ? "Uden navn" : label;
    return title.append(" (").append(displayName(type)).append(")");
}

VolumeList oneOrNone(std::unique_ptr<Volume> volume)
{
    VolumeList volumes;
    if (volume)
        volumes.push_back(std::move(volume));
    return volumes;
}
