#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// A byte count in decimal units: "1 byte", "999 bytes", "12 KB", "3.4 MB", "1.25 GB". Counts above
/// the largest signed 64-bit value are shown as that.
std::string formatBytes(std::uint64_t count, std::string_view decimalSeparator);
