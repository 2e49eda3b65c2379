#include "VintrelCore/DirectoryWalk.h"

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
