#include "VintrelCore/FileSystems/Ext/Reader.h"

#include <array>
#include <cstddef>

namespace {

constexpr FileSystemType types[] = { FileSystemType::ext };

constexpr std::int64_t superblockOffset = 1024; // in the volume
constexpr std::uint16_t magicNumber = 0xEF53;

/// The beginning of the superblock ("ext4 Data Structures and Algorithms" of the Linux kernel's
/// documentation, "The Super Block"; struct ext4_super_block).
struct Superblock {
    std::array<std::uint8_t, 56> counts; //  0
    LE16 magic;                          // 56
};
static_assert(sizeof(Superblock) == 58 && offsetof(Superblock, magic) == 56);

std::optional<FileSystemType> probe(ByteView head)
{
    const auto superblock = head.load<Superblock>(superblockOffset);
    return superblock && superblock->magic == magicNumber ? std::optional(FileSystemType::ext)
                                                          : std::nullopt;
}

} // namespace

const FileSystemReader extReader {
    .types = types,
    .probe = probe,
    .load = nullptr,
    .quickScanNote = "ext-filsystemer understøttes kun via dyb scanning.",
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = nullptr,
    .rebuildVolumes = nullptr,
    .addLostFiles = nullptr,
};
