#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of encrypted volumes in the table of file systems. They are named and not read: what
/// file system they hold, only the key tells.
extern const FileSystemReader encryptedReader;
/// The row of removable disks that BitLocker encrypted: they look like FAT volumes.
extern const FileSystemReader encryptedToGoReader;
