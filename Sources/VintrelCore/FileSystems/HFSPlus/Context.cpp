#include "VintrelCore/FileSystems/HFSPlus/Context.h"

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Tree.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"

#include <string_view>

using namespace HFSPlusFormat;

namespace {

/// Tells of metadata files that could not be read wholly.
void noteLostMetadata(Volume& volume, const HFSPlusForks& forks, const HFSPlusCatalog& catalog)
{
    const auto note = [&](std::string_view file, std::uint64_t lost, std::string_view effect) {
        if (lost > 0)
            volume.notes.push_back("Dele af " + std::string(file) + " kunne ikke læses ("
                + std::to_string(lost) + " bytes). " + std::string(effect));
    };
    note("kataloget", catalog.lostBytes(), "Filer kan mangle.");
    note("extents-filen", forks.lostOverflowBytes(),
        "De sidste dele af fragmenterede filer kan mangle.");
    if (forks.hasAllocation())
        note("allokeringsfilen", forks.lostAllocationBytes(),
            "Om slettede filers blokke er genbrugt, vides kun for nogle af dem.");
    else
        volume.notes.emplace_back("Allokeringsfilen kunne ikke læses.");
}

} // namespace

HFSContext::HFSContext(DiskSource& source, std::uint64_t base, const VolumeHeader& header)
    : source_(source)
    , base_(base)
    , header_(header)
{
}

std::unique_ptr<Volume> HFSContext::build(const std::string& origin, WorkProgress* progress) const
{
    report(progress, 0, "Læser HFS+-katalog …");
    const HFSPlusForks forks(source_, base_, header_);
    const auto catalog = HFSPlusCatalog::load(forks, header_);
    if (!catalog || catalog->entries().empty())
        return nullptr;

    const auto* root = catalog->find(rootFolderID);
    auto volume = std::make_unique<Volume>(FileSystemType::hfsplus,
        root != nullptr ? catalog->nameOf(*root) : std::string(), base_,
        header_.start.totalBlocks * forks.blockSize(),
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->root->fsID = rootFolderID;
    if (header_.start.signature == signatureHFSX)
        volume->notes.emplace_back("HFSX (versalfølsom)");
    noteLostMetadata(*volume, forks, *catalog);
    HFSPlusFileTree(forks, *catalog).build(*volume->root);
    volume->root->sortChildren();
    volume->deepContext = std::make_unique<HFSPlusVolumeContext>(header_);
    return volume;
}
