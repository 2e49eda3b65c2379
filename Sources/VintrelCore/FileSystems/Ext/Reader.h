#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of ext2, ext3 and ext4 in the table of file systems. The deep scan reads them.
extern const FileSystemReader extReader;
