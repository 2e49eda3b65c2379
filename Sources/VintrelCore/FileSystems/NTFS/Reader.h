#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of NTFS in the table of file systems.
extern const FileSystemReader ntfsReader;
