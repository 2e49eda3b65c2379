#pragma once

#include "VintrelCore/Model/FileSystemReader.h"

#include <span>

/// The table of file systems: one row each, in the order in which they are asked. Those who scan go
/// by it alone; a new file system is a folder with a reader and a row here.
std::span<const FileSystemReader* const> fileSystems();

/// The row that a type belongs to; none for types that no file system has.
const FileSystemReader* readerFor(FileSystemType type);
