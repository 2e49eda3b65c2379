#include "VintrelCore/Recovery/SafeName.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace RecoveryEngine {

namespace {

/// Leaves room for a number below the 255 bytes of most file systems.
constexpr std::size_t maxComponentBytes = 250;
constexpr std::size_t maxNumberedBytes = 255;

bool exists(const std::string& path)
{
    struct stat status { };
    return ::lstat(path.c_str(), &status) == 0;
}

/// Where the extension of a file name begins, with its dot; the name's end when it has none. A
/// leading dot makes a hidden file, and a text that leaves no room for the stem is no extension.
std::size_t extensionStart(const std::string& name)
{
    const auto dot = name.rfind('.');
    const bool isExtension = dot != std::string::npos && dot != 0 && dot != name.size() - 1
        && name.size() - dot <= maxNumberedBytes / 2;
    return isExtension ? dot : name.size();
}

} // namespace

std::string sanitize(std::string_view name)
{
    std::string safe(name);
    std::ranges::replace(safe, '/', ':');
    std::ranges::replace(safe, '\0', '_');
    safe = std::string(Unicode::trimmed(safe));
    if (safe.empty() || safe == "." || safe == "..")
        return "unavngivet";
    while (safe.size() > maxComponentBytes)
        Unicode::removeLast(safe);
    return safe;
}

std::string numberedName(const std::string& name, int number, bool isDirectory)
{
    if (number == 1)
        return name;
    const auto end = isDirectory ? name.size() : extensionStart(name);
    std::string stem = name.substr(0, end);
    const std::string rest = " (" + std::to_string(number) + ")" + name.substr(end);
    while (!stem.empty() && stem.size() + rest.size() > maxNumberedBytes)
        Unicode::removeLast(stem);
    return stem + rest;
}

std::string uniquePath(const std::string& path, bool isDirectory)
{
    const std::filesystem::path wanted(path);
    std::string candidate = path;
    for (int number = 2; exists(candidate); ++number)
        candidate
            = wanted.parent_path() / numberedName(wanted.filename().string(), number, isDirectory);
    return candidate;
}

} // namespace RecoveryEngine
