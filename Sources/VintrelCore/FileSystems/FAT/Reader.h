#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of FAT12, FAT16 and FAT32 in the table of file systems.
extern const FileSystemReader fatReader;
