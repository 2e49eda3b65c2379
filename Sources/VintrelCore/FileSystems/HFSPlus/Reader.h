#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of HFS+ and HFSX in the table of file systems.
extern const FileSystemReader hfsPlusReader;
