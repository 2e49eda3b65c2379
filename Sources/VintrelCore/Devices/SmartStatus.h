#pragma once

#include <string>

/// What a disk says of its own health.
namespace SmartStatus {

/// "Verified", "Failing" or "Not Supported", as smartctl of smartmontools tells of a disk. Its path
/// may be empty.
std::string ask(const std::string& smartctl, const std::string& disk);

} // namespace SmartStatus
