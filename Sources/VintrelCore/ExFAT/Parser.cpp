// ExFATParser: the face of the exFAT reader.

#include "VintrelCore/DiskSource.h"
#include "VintrelCore/ExFAT.h"
#include "VintrelCore/ExFAT/Walker.h"
#include "VintrelCore/FSProbe.h"

namespace ExFATParser {

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto sector = FSProbe::bootSector(source, offset, boot);
    if (FSProbe::detectBootSector(sector) != FileSystemType::exfat)
        return nullptr;
    const auto geometry = ExFATGeometry::from(sector, offset);
    if (!geometry)
        return nullptr;

    ExFATContext context(source, *geometry);
    auto volume = std::make_unique<Volume>(FileSystemType::exfat, "", offset, geometry->volumeSize,
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = geometry->heap.clusterSize;
    ExFATWalker walker(context, progress);
    walker.walkRoot(*volume->root);
    volume->label = walker.label().value_or("");
    if (context.fatUnavailable())
        volume->notes.emplace_back("FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende.");
    if (context.bitmapUnavailable())
        volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
    volume->root->sortChildren();
    return volume;
}

} // namespace ExFATParser
