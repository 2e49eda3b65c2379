#include "VintrelCore/FileSystems/APFS/VolumeSuperblock.h"

#include "VintrelCore/FileSystems/APFS/Objects.h"

using namespace APFSFormat;

namespace {

VolumeSuperblock decode(ByteView block)
{
    return block.load<VolumeSuperblock>(0).value_or(VolumeSuperblock {});
}

} // namespace

bool APFSVolumeSuperblock::isSound(ByteView block)
{
    return isVolumeSuperblock(decode(block)) && APFSParser::checksumOK(block);
}

std::optional<APFSVolumeSuperblock> APFSVolumeSuperblock::find(
    APFSBlockReader& blocks, APFSCheckpoints& checkpoints, std::uint64_t oid)
{
    const auto& map = checkpoints.objectMap();
    if (oid == 0 || map.empty())
        return std::nullopt;
    const auto mapped = map.find(oid);
    Bytes block;
    if (mapped == map.end() || !blocks.read(mapped->second, block))
        block.clear();
    if (isSound(block))
        return APFSVolumeSuperblock { .stored = decode(block), .oid = oid };
    if (const auto older = checkpoints.olderSuperblocks(oid); !older.empty())
        return APFSVolumeSuperblock { .stored = decode(older.front()),
            .oid = oid,
            .note = "Volumens nyeste superblok er beskadiget. En ældre er brugt i stedet." };
    if (isVolumeSuperblock(decode(block)))
        return APFSVolumeSuperblock { .stored = decode(block),
            .oid = oid,
            .trust = Trust::damaged,
            .note = "Volumens superblok har forkert kontrolsum." };
    return APFSVolumeSuperblock { .oid = oid,
        .trust = Trust::lost,
        .note = "Volumens superblok er tabt. Volumens filer kan ikke læses uden den." };
}

std::vector<APFSVolumeSuperblock> APFSVolumeSuperblock::findDeleted(APFSCheckpoints& checkpoints)
{
    std::vector<APFSVolumeSuperblock> found;
    for (const auto oid : checkpoints.deletedVolumes())
        if (const auto versions = checkpoints.olderSuperblocks(oid); !versions.empty())
            found.push_back({ .stored = decode(versions.front()), .oid = oid, .isDeleted = true });
    return found;
}
