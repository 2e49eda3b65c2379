#include "VintrelCore/FileSystems/Ext/Reader.h"

#include "VintrelCore/FileSystems/Ext/LooseLists.h"
#include "VintrelCore/FileSystems/Ext/LooseNodes.h"
#include "VintrelCore/FileSystems/Ext/LostVolumes.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"

namespace {

constexpr FileSystemType types[] = { FileSystemType::ext };

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(
        ExtParser::parse(request.source, request.offset, request.origin, request.progress));
}

std::vector<ExtraFolder> findLostFolders(DiskSource& /*source*/, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress)
{
    ExtListed listed;
    for (const auto& volume : volumes)
        if (const auto* context = dynamic_cast<const ExtContext*>(volume->deepContext.get()))
            listed.add(*volume, context->geometry().blockSize);
    std::vector<ExtraFolder> folders;
    for (const auto& volume : volumes) {
        auto* const context = dynamic_cast<ExtContext*>(volume->deepContext.get());
        if (context == nullptr || isCancelled(progress))
            continue;
        report(progress, 0, "Søger efter filer fra løse bloklister …");
        ExtLooseFiles files(*context, listed);
        ExtLooseLists::add(*context, listed, finds, files);
        ExtLooseNodes::add(*context, listed, finds, files);
        if (auto folder = files.takeFolder())
            folders.push_back({ volume.get(), std::move(folder) });
    }
    return folders;
}

} // namespace

const FileSystemReader extReader {
    .types = types,
    .probe = ExtParser::probe,
    .load = load,
    .quickScanNote = "ext-filsystemer understøttes kun via dyb scanning.",
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = ExtLostVolumes::find,
    .rebuildVolumes = nullptr,
    .findLostFolders = findLostFolders,
    .addUsedRanges = ExtParser::addUsedRanges,
};
