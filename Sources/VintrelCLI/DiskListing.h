#pragma once

#include "VintrelCore/Devices/DiskList.h"

#include <string>
#include <vector>

/// Disks, a line each, and below it a line for each partition; tabs separate the columns.
std::string describeDisks(const std::vector<DiskRecord>& disks);
