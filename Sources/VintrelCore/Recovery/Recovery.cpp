#include "VintrelCore/Recovery/Recovery.h"

#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/CopyJob.h"
#include "VintrelCore/Recovery/Destination.h"
#include "VintrelCore/Recovery/SafeName.h"

#include <algorithm>
#include <filesystem>
#include <unordered_set>

namespace RecoveryEngine {

namespace {

/// The files among the nodes and below them, and the folders that something is attached to, each
/// once, those that exist first.
std::vector<FileNode*> nodesToCopy(std::span<FileNode* const> nodes)
{
    std::vector<FileNode*> wanted;
    std::unordered_set<const FileNode*> handled;
    const auto take = [&](FileNode& node, std::size_t) {
        if ((!node.isDirectory() || node.attachments) && handled.insert(&node).second)
            wanted.push_back(&node);
    };
    for (auto* node : nodes) {
        take(*node, 0);
        node->forEachDescendant(take);
    }
    std::stable_partition(wanted.begin(), wanted.end(),
        [](const FileNode* node) { return node->status == EntryStatus::existing; });
    return wanted;
}

} // namespace

RecoveryResult recover(std::span<FileNode* const> nodes, const std::string& rootName,
    DiskSource& source, const std::string& destination, const RecoveryOptions& options,
    const Reporter& reporter, const WorkProgress& progress)
{
    RecoveryResult result;
    const std::string name = rootName.empty() ? "Gendannet" : sanitize(rootName);
    std::string folder = (std::filesystem::path(destination) / name).string();
    auto root = Destination::makeRoot(folder);
    if (!root) {
        result.failed = static_cast<std::int64_t>(nodes.size());
        result.failures.push_back(
            "Kunne ikke oprette mappen " + folder + ": " + root.error().message());
        return result;
    }
    result.folder = folder;
    CopyJob job(source, std::move(*root), options, reporter, progress, result);
    if (options.writePage)
        job.openPage(rootName);
    job.copy(nodesToCopy(nodes));
    return result;
}

} // namespace RecoveryEngine
