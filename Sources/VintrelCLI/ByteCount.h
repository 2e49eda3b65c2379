#pragma once

#include "VintrelCore/Foundation/ByteCount.h"

/// The same with the environment's decimal separator.
std::string formatBytes(std::uint64_t count);
