#include "VintrelCore/FileSystems/FSProbe.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"

#include <algorithm>

namespace FSProbe {

namespace {

/// What a probe looks at, from the volume's first byte on.
constexpr std::uint64_t headSize = 4096;

Bytes readHead(DiskSource& source, std::uint64_t offset)
{
    const std::uint64_t available = source.size() > offset ? source.size() - offset : 0;
    return source.read(
        offset, static_cast<std::int64_t>(std::min(available, headSize)), ReadMode::thorough);
}

} // namespace

std::optional<FileSystemType> detectBootSector(ByteView bytes, std::int64_t at)
{
    const auto boot = bytes.sub(at, static_cast<std::int64_t>(bytes.size()));
    for (const auto* reader : fileSystems())
        if (reader->startByBackup != nullptr) // only those have boot sectors
            if (const auto type = reader->probe(boot))
                return type;
    return std::nullopt;
}

bool isHFSPlusHeader(ByteView bytes, std::int64_t at)
{
    return HFSPlusParser::isVolumeHeader(bytes.sub(at, static_cast<std::int64_t>(bytes.size())));
}

std::optional<FileSystemType> detect(DiskSource& source, std::uint64_t offset)
{
    const auto head = readHead(source, offset);
    for (const auto* reader : fileSystems())
        if (const auto type = reader->probe(head))
            return type;
    return std::nullopt;
}

std::string_view encryptionAt(DiskSource& source, std::uint64_t offset)
{
    const auto head = readHead(source, offset);
    for (const auto* reader : fileSystems())
        if (reader->probe(head))
            return reader->encryptionOf != nullptr ? reader->encryptionOf(head)
                                                   : std::string_view();
    return {};
}

} // namespace FSProbe
