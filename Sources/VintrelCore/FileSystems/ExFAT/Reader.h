#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

/// The row of exFAT in the table of file systems.
extern const FileSystemReader exfatReader;
