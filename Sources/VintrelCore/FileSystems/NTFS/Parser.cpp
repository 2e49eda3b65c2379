// NTFSParser::parse: the face of the NTFS reader.

#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

namespace NTFSParser {

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto sector = FSProbe::bootSector(source, offset, boot);
    const auto geometry = NTFSGeometry::from(sector, offset);
    if (!geometry)
        return nullptr;
    const NTFSContext context(source, *geometry);
    std::vector<std::string> notes;
    const auto mft = context.locateMFT(notes);
    if (!mft)
        return nullptr;
    auto records = context.readAllRecords(*mft, progress);
    if (records.count() == 0)
        return nullptr;
    auto volume = context.buildVolume(std::move(records), origin);
    std::ranges::move(notes, std::back_inserter(volume->notes));
    volume->deepContext = std::make_unique<NTFSDeepInfo>(*geometry, *mft);
    return volume;
}

} // namespace NTFSParser
