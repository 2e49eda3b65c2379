#include "VintrelCore/FileSystems/FileSystems.h"

#include "VintrelCore/FileSystems/APFS/Reader.h"
#include "VintrelCore/FileSystems/Encrypted/Reader.h"
#include "VintrelCore/FileSystems/ExFAT/Reader.h"
#include "VintrelCore/FileSystems/Ext/Reader.h"
#include "VintrelCore/FileSystems/FAT/Reader.h"
#include "VintrelCore/FileSystems/HFSPlus/Reader.h"
#include "VintrelCore/FileSystems/NTFS/Reader.h"

#include <algorithm>

namespace {

constexpr const FileSystemReader* rows[] = {
    &ntfsReader,          // says its name, which is more than FAT does
    &exfatReader,         // says it too
    &encryptedToGoReader, // has a boot sector of FAT, and more
    &fatReader,           // after both: only its numbers tell it, and theirs could pass for it
    &hfsPlusReader, // keeps its first kilobyte free, where a boot sector may stand that counts more
    &apfsReader,    // has four bytes to go by
    &extReader,     // has two
    &encryptedReader, // has no content to read, so that anything else counts more
};

} // namespace

std::span<const FileSystemReader* const> fileSystems() { return rows; }

const FileSystemReader* readerFor(FileSystemType type)
{
    const auto* const row = std::ranges::find_if(rows, [&](const FileSystemReader* reader) {
        return std::ranges::count(reader->types, type) != 0;
    });
    return row != std::end(rows) ? *row : nullptr;
}
