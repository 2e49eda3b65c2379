#include "VintrelCore/FileSystems/HFSPlus/LooseLeaves.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Context.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Tree.h"
#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/SourceEnd.h"

#include <algorithm>
#include <limits>

using namespace HFSPlusFormat;

namespace {

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

void readWholeCatalog(DiskSource& source, Volume& volume, WorkProgress* progress)
{
    const auto& context = static_cast<const HFSPlusVolumeContext&>(*volume.deepContext);
    auto whole = HFSContext(source, volume.offset, context.header)
                     .build(volume.origin, progress, { .maxBytes = everything });
    if (!whole)
        return;
    noteSourceEnd(*whole, source.size());
    volume.root = std::move(whole->root);
    volume.notes = std::move(whole->notes);
    volume.deepContext = std::move(whole->deepContext);
}

/// The leaves of a sweep that lie in a volume, and not in its catalog.
std::vector<std::uint64_t> leavesOutside(const Volume& volume, const HFSPlusForks& forks,
    const VolumeHeader& header, const DeepScanResult& finds)
{
    RangeSet catalog;
    for (const auto& extent : forks.allExtents(header.catalogFile, catalogFileID)) {
        const auto piece = forks.pieceOf(extent, everything);
        if (piece.offset)
            catalog.add(*piece.offset, *piece.offset + piece.length);
    }
    std::vector<std::uint64_t> leaves;
    for (auto leaf = std::ranges::lower_bound(finds.hfsLeaves, volume.offset);
         leaf != finds.hfsLeaves.end() && *leaf - volume.offset < volume.size; ++leaf)
        if (!catalog.contains(*leaf))
            leaves.push_back(*leaf);
    return leaves;
}

std::unique_ptr<FileNode> addLooseLeaves(
    DiskSource& source, Volume& volume, const DeepScanResult& finds)
{
    const auto& context = static_cast<const HFSPlusVolumeContext&>(*volume.deepContext);
    const HFSPlusForks forks(source, volume.offset, context.header);
    const auto leaves = leavesOutside(volume, forks, context.header, finds);
    if (leaves.empty())
        return nullptr;
    auto catalog = HFSPlusCatalog::load(
        forks, context.header, { .maxBytes = everything, .mayLackHeader = true });
    if (!catalog)
        return nullptr;
    for (const auto leaf : leaves)
        catalog->addLooseLeaf(source.read(leaf, catalog->nodeSize(), ReadMode::thorough));
    if (catalog->looseEntries().empty())
        return nullptr;
    auto orphans = FileNode::makeFolder("$Tabte katalogposter", EntryStatus::orphaned);
    const HFSPlusAttributes attributes(forks, context.header);
    HFSPlusFileTree(forks, *catalog, attributes).addLoose(*volume.root, *orphans);
    volume.root->sortChildren();
    orphans->sortChildren();
    return orphans->children().empty() ? nullptr : std::move(orphans);
}

} // namespace

namespace HFSPlusLooseLeaves {

std::vector<ExtraFolder> findLostFolders(DiskSource& source, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress)
{
    std::vector<ExtraFolder> folders;
    for (const auto& volume : volumes) {
        const auto* context = dynamic_cast<const HFSPlusVolumeContext*>(volume->deepContext.get());
        if (context == nullptr || isCancelled(progress))
            continue;
        if (context->isCatalogCapped)
            readWholeCatalog(source, *volume, progress);
        if (auto orphans = addLooseLeaves(source, *volume, finds))
            folders.push_back({ volume.get(), std::move(orphans) });
    }
    return folders;
}

} // namespace HFSPlusLooseLeaves
