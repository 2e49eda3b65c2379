#include "VintrelCore/FileSystems/HFSPlus/Context.h"

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Tree.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"

using namespace HFSPlusFormat;

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
    if (!forks.hasAllocation())
        volume->notes.emplace_back("Allokeringsfilen kunne ikke læses.");
    HFSPlusFileTree(forks, *catalog).build(*volume->root);
    volume->root->sortChildren();
    return volume;
}
