#pragma once

#include <cstdint>
#include <ctime>
#include <string>

/// What only one system has, or each has in its own way. Everything that asks which system this is
/// stands behind this.
namespace CVintrel {

/// The text between a number's integer and decimals in the environment's locale (LC_ALL,
/// LC_NUMERIC, LANG); "." when the environment names none or one that is not known. The environment
/// is asked once.
const std::string& decimalSeparator();

/// Sets the creation date of an open file. False where the system or the file system keeps none
/// that can be set.
bool setCreationDate(int descriptor, const std::timespec& date);

/// Waits until what was written to an open file is safe on the disk, from a loss of power too as
/// far as the system can tell. The system's error number; 0 when all went well.
int flush(int descriptor);

/// The same for everything on the file system of an open file or folder, as far as the system can.
int flushFileSystem(int descriptor);

/// Lets the system begin to bring this range of an open file to the disk, without waiting for it,
/// so that a later flush finds little left to do. Does nothing where the system begins by itself.
void startFlushing(int descriptor, std::uint64_t offset, std::uint64_t count);

/// The first byte of an open file at or behind `offset` that is stored, in bytes; what lies before
/// it is a hole. `size`, the file's, when nothing is stored there, and `offset` where the file
/// system keeps no holes.
std::uint64_t nextStored(int descriptor, std::uint64_t offset, std::uint64_t size);

} // namespace CVintrel
