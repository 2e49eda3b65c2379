#include "VintrelCore/FileSystems/Encrypted/Reader.h"

#include <array>
#include <cstddef>

namespace {

constexpr FileSystemType types[] = { FileSystemType::unknown };

/// The boot sector of a volume that BitLocker encrypted ("BitLocker Drive Encryption (BDE) format
/// specification" of the libbde project, Volume header).
bool isBitLocker(ByteView head) { return head.matches("-FVE-FS-", 3); }

/// The boot sector of a removable disk that it encrypted (BitLocker To Go): it is one of FAT32, for
/// the small volume that older systems find a reader on, and has an identifier besides.
bool isBitLockerToGo(ByteView head)
{
    constexpr std::array<std::uint8_t, 16> identifier { 0x3B, 0xD6, 0x67, 0x49, 0x29, 0x2E, 0xD8,
        0x4A, 0x83, 0x99, 0xF6, 0xA3, 0x39, 0xE3, 0xD0, 0x01 };
    constexpr std::int64_t identifierOffset = 424;
    return head.matches("MSWIN4.1", 3) && head.matches(ByteView(identifier), identifierOffset);
}

constexpr std::string_view bitLocker = "BitLocker";

/// The header of LUKS 1 and 2 ("LUKS On-Disk Format Specification" and "LUKS2 On-Disk Format
/// Specification", the binary header; numbers are big-endian).
bool isLUKS(ByteView head)
{
    const auto version = head.u16be(6);
    return head.matches("LUKS\xBA\xBE", 0) && (version == 1 || version == 2);
}

/// The beginning of a physical volume of CoreStorage ("FileVault Drive Encryption (FVDE) format
/// specification" of the libfvde project, Volume header).
struct CoreStorageHeader {
    LE32 checksum, checksumStart;        //  0, 4
    LE16 version;                        //  8
    LE16 blockType;                      // 10
    std::array<std::uint8_t, 76> unused; // 12  serial number, sizes of the volume and its sectors
    LE16 signature;                      // 88  "CS"
    LE16 checksumKind;                   // 90
};
static_assert(sizeof(CoreStorageHeader) == 92 && offsetof(CoreStorageHeader, signature) == 88);

bool isCoreStorage(ByteView head)
{
    constexpr std::uint16_t volumeHeaderBlock = 0x0010;
    const auto header = head.load<CoreStorageHeader>(0);
    return header && header->version == 1 && header->blockType == volumeHeaderBlock
        && head.matches("CS", offsetof(CoreStorageHeader, signature));
}

constexpr struct {
    bool (*begins)(ByteView head);
    std::string_view name;
} kinds[] = {
    { isBitLocker, bitLocker },
    { isLUKS, "LUKS" },
    { isCoreStorage, "FileVault (CoreStorage)" },
};

std::string_view encryptionOf(ByteView head)
{
    for (const auto& [begins, name] : kinds)
        if (begins(head))
            return name;
    return {};
}

std::optional<FileSystemType> probe(ByteView head)
{
    return encryptionOf(head).empty() ? std::nullopt : std::optional(FileSystemType::unknown);
}

std::optional<FileSystemType> probeToGo(ByteView head)
{
    return isBitLockerToGo(head) ? std::optional(FileSystemType::unknown) : std::nullopt;
}

std::string_view toGoEncryption(ByteView /*head*/) { return bitLocker; }

} // namespace

const FileSystemReader encryptedToGoReader {
    .types = {},
    .probe = probeToGo,
    .load = nullptr,
    .encryptionOf = toGoEncryption,
    .quickScanNote = {},
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = nullptr,
    .rebuildVolumes = nullptr,
    .findLostFolders = nullptr,
    .addUsedRanges = nullptr,
};

const FileSystemReader encryptedReader {
    .types = types,
    .probe = probe,
    .load = nullptr,
    .encryptionOf = encryptionOf,
    .quickScanNote = {},
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = nullptr,
    .rebuildVolumes = nullptr,
    .findLostFolders = nullptr,
    .addUsedRanges = nullptr,
};
