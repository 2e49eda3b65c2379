#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of APFS in the table of file systems.
extern const FileSystemReader apfsReader;
