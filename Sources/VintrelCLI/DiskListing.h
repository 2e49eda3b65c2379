#pragma once

#include "VintrelCore/Devices/DiskList.h"

#include <iosfwd>
#include <vector>

/// Prints disks, a line each, and below it a line for each partition; tabs separate the columns.
void printDisks(const std::vector<DiskRecord>& disks, std::ostream& out);
