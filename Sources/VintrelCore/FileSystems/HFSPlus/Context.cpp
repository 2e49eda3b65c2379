#include "VintrelCore/FileSystems/HFSPlus/Context.h"

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Tree.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"

#include <string_view>

using namespace HFSPlusFormat;

namespace {

using Authority = HFSPlusTreeHealth::Authority;

void noteLostBytes(
    Volume& volume, std::string_view file, std::uint64_t lost, std::string_view effect)
{
    if (lost > 0)
        volume.notes.push_back("Dele af " + std::string(file) + " kunne ikke læses ("
            + std::to_string(lost) + " bytes). " + std::string(effect));
}

/// How the files were told apart that exist and those that do not, where the chain of leaves
/// breaks off.
std::string_view wordsFor(Authority authority)
{
    switch (authority) {
    case Authority::index:
    case Authority::chain:
        return "Hvilke filer der eksisterer, er afgjort af dets indeks.";
    case Authority::map:
        return "Hvilke filer der eksisterer, er afgjort af dets kort over brugte knuder.";
    case Authority::none:
        break;
    }
    return "Slettede filer kan ikke skelnes fra eksisterende.";
}

void noteCatalog(Volume& volume, const HFSPlusCatalog& catalog)
{
    const auto& health = catalog.health();
    noteLostBytes(volume, "kataloget", health.lostBytes, "Filer kan mangle.");
    if (catalog.isCapped()) {
        volume.notes.emplace_back("Kataloget er større end 1 GiB, og resten af det er ikke læst. "
                                  "Filer kan mangle. Prøv dyb scanning.");
        return;
    }
    if (health.isCut)
        volume.notes.push_back(
            "Katalogets kæde af blade er afbrudt. " + std::string(wordsFor(health.authority)));
    if (health.missingRecords > 0)
        volume.notes.push_back("Kataloget mangler " + std::to_string(health.missingRecords)
            + " af sine poster. Filer kan mangle.");
}

/// `file` and `fileFirst`: its name, and the same at the beginning of a sentence.
void noteTree(Volume& volume, const HFSPlusTreeHealth& health, std::string_view file,
    const std::string& fileFirst, std::string_view effect)
{
    noteLostBytes(volume, file, health.lostBytes, effect);
    if (health.isUnusable && health.lostBytes == 0)
        volume.notes.push_back(fileFirst + " kunne ikke læses. " + std::string(effect));
    else if (health.missingRecords > 0)
        volume.notes.push_back(fileFirst + " mangler " + std::to_string(health.missingRecords)
            + " af sine poster. " + std::string(effect));
    else if (health.isCut && health.lostBytes == 0)
        volume.notes.push_back(fileFirst + "s kæde af blade er afbrudt. " + std::string(effect));
}

void noteAttributes(Volume& volume, const HFSPlusAttributes& attributes)
{
    constexpr std::string_view effect
        = "Komprimerede filers indhold og udvidede attributter kan mangle.";
    if (attributes.isCapped())
        volume.notes.push_back(
            "Attributfilen er for stor til at blive læst helt. " + std::string(effect));
    else
        noteTree(volume, attributes.health(), "attributfilen", "Attributfilen", effect);
}

/// Tells of metadata files that could not be read wholly.
void noteLostMetadata(Volume& volume, const HFSPlusForks& forks, const HFSPlusCatalog& catalog,
    const HFSPlusAttributes& attributes)
{
    constexpr std::string_view effect
        = "Om slettede filers blokke er genbrugt, vides kun for nogle af dem.";
    noteCatalog(volume, catalog);
    noteTree(volume, forks.overflowHealth(), "extents-filen", "Extents-filen",
        "De sidste dele af fragmenterede filer kan mangle.");
    noteAttributes(volume, attributes);
    if (!forks.hasAllocation())
        volume.notes.emplace_back("Allokeringsfilen kunne ikke læses.");
    else if (forks.isAllocationShort())
        volume.notes.push_back(
            "Allokeringsfilen er kortere end filsystemet. " + std::string(effect));
    noteLostBytes(volume, "allokeringsfilen",
        forks.hasAllocation() ? forks.lostAllocationBytes() : 0, effect);
}

} // namespace

HFSContext::HFSContext(DiskSource& source, std::uint64_t base, const VolumeHeader& header)
    : source_(source)
    , base_(base)
    , header_(header)
{
}

std::unique_ptr<Volume> HFSContext::build(
    const std::string& origin, WorkProgress* progress, const HFSPlusCatalog::Options& options) const
{
    report(progress, 0, "Læser HFS+-katalog …");
    const HFSPlusForks forks(source_, base_, header_);
    const auto catalog = HFSPlusCatalog::load(forks, header_, options);
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
    const HFSPlusAttributes attributes(forks, header_);
    noteLostMetadata(*volume, forks, *catalog, attributes);
    HFSPlusFileTree tree(forks, *catalog, attributes);
    tree.build(*volume->root);
    if (const auto count = tree.folderLinkCount(); count > 0)
        volume->notes.push_back(std::to_string(count)
            + " hårde links til mapper; hver mappe vises ved det første af sine links.");
    if (tree.lacksAttributes())
        volume->notes.emplace_back(
            "Filsystemet har for mange udvidede attributter; nogle af dem er udeladt.");
    volume->root->sortChildren();
    volume->deepContext = std::make_unique<HFSPlusVolumeContext>(header_, catalog->isCapped());
    return volume;
}
