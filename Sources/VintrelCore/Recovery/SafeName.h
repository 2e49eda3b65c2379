#pragma once

#include <string>
#include <string_view>

/// Names from disks as names of files that are written.
namespace RecoveryEngine {

/// A name from a disk as one safe component of a path: not empty, no "/", at most 250 bytes.
std::string sanitize(std::string_view name);

/// `name` with " (2)", " (3)" … before its extension; number 1 is the name itself. Folders have no
/// extension. At most 255 bytes.
std::string numberedName(const std::string& name, int number, bool isDirectory);

/// `path`, or the first one with a number at which nothing exists.
std::string uniquePath(const std::string& path, bool isDirectory);

} // namespace RecoveryEngine
