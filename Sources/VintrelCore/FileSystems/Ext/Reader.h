#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of ext2, ext3 and ext4 in the table of file systems. They are recognised and not read.
extern const FileSystemReader extReader;
