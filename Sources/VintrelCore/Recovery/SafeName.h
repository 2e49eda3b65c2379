#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Names from disks as names of files that are written.
namespace RecoveryEngine {

/// A name from a disk as one safe component of a path: not empty, no "/", at most 250 bytes.
std::string sanitize(std::string_view name);

/// A safe name as Windows and its file systems take it too: without the characters and the trailing
/// dots and blanks that they refuse, and told apart from the names of their devices.
std::string portableName(std::string_view name);

/// Most file systems take a name of so many bytes.
inline constexpr std::size_t maxNameBytes = 255;
/// Those that encrypt names take fewer.
inline constexpr std::size_t maxShortNameBytes = 143;

/// `name` with " (2)", " (3)" … before its extension; number 1 is the name itself. Folders have no
/// extension. What is longer than `maxBytes` is cut before the number.
std::string numberedName(
    const std::string& name, int number, bool isDirectory, std::size_t maxBytes = maxNameBytes);

/// `path`, or the first one with a number at which nothing exists; numbered as above.
std::string uniquePath(
    const std::string& path, bool isDirectory, std::size_t maxBytes = maxNameBytes);

} // namespace RecoveryEngine
