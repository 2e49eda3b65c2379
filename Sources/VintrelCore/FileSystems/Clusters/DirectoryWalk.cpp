#include "VintrelCore/FileSystems/Clusters/DirectoryWalk.h"

#include <string>

namespace {

/// Directories nest no deeper than this; the root is level 0.
constexpr int maxDepth = 63;

constexpr int reportInterval = 50; // directories

} // namespace

bool DirectoryWalk::enter(std::uint32_t cluster, int depth)
{
    if (depth > maxDepth || !heap_.contains(cluster) || !visited.insert(cluster).second)
        return false;
    if (++directoriesRead_ % reportInterval == 0 && progress_ != nullptr)
        progress_->report(0, "Læser mapper … (" + std::to_string(directoriesRead_) + ")");
    return true;
}

std::unique_ptr<Volume> finishRebuilt(
    std::unique_ptr<Volume> volume, std::string_view kind, std::size_t sectors)
{
    if (volume->root->children().empty())
        return nullptr;
    volume->root->sortChildren();
    volume->notes.insert(volume->notes.begin(),
        { "Genopbygget ud fra " + std::to_string(sectors) + " " + std::string(kind)
                + "-mappesektorer fundet ved dyb scanning.",
            "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende." });
    return volume;
}
