#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of encrypted volumes in the table of file systems. They are named and not read: what
/// file system they hold, only the key tells.
extern const FileSystemReader encryptedReader;
