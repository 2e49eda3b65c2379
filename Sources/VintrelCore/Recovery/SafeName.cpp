#include "VintrelCore/Recovery/SafeName.h"

#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace RecoveryEngine {

namespace {

/// Leaves room for a number below the 255 bytes of most file systems.
constexpr std::size_t maxComponentBytes = 250;

constexpr std::string_view unnamed = "unavngivet";

/// "Naming Files, Paths, and Namespaces" (Microsoft): what no name may hold, besides control
/// characters, and what stands for a device, whatever extension it has.
constexpr std::string_view refusedCharacters = "<>:\"/\\|?*";
constexpr std::string_view devices[] = { "AUX", "CON", "NUL", "PRN" };
constexpr std::string_view numberedDevices[] = { "COM", "LPT" };

bool isControl(char character)
{
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
}

/// Whether Windows takes a name without its extension for that of a device.
bool isDeviceName(std::string_view stem)
{
    const auto name = Text::upperCase(stem.substr(0, stem.find_last_not_of(' ') + 1));
    if (std::ranges::count(devices, name) != 0)
        return true;
    return name.size() == 4 && name[3] >= '1' && name[3] <= '9'
        && std::ranges::count(numberedDevices, std::string_view(name).substr(0, 3)) != 0;
}

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
        && name.size() - dot <= maxNameBytes / 2;
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
        return std::string(unnamed);
    while (safe.size() > maxComponentBytes)
        Unicode::removeLast(safe);
    return safe;
}

std::string portableName(std::string_view name)
{
    std::string portable(name);
    for (char& character : portable)
        if (isControl(character) || refusedCharacters.find(character) != std::string_view::npos)
            character = '_';
    portable.erase(portable.find_last_not_of(". ") + 1);
    if (portable.empty())
        return std::string(unnamed);
    const auto dot = std::min(portable.find('.'), portable.size());
    if (isDeviceName(std::string_view(portable).substr(0, dot)))
        portable.insert(dot, 1, '_');
    return portable;
}

std::string numberedName(
    const std::string& name, int number, bool isDirectory, std::size_t maxBytes)
{
    if (number == 1 && name.size() <= maxBytes)
        return name;
    const auto end = isDirectory ? name.size() : extensionStart(name);
    std::string stem = name.substr(0, end);
    const std::string rest
        = (number == 1 ? "" : " (" + std::to_string(number) + ")") + name.substr(end);
    while (!stem.empty() && stem.size() + rest.size() > maxBytes)
        Unicode::removeLast(stem);
    return stem + rest;
}

std::string uniquePath(const std::string& path, bool isDirectory, std::size_t maxBytes)
{
    const std::filesystem::path wanted(path);
    const auto candidate = [&](int number) {
        return (wanted.parent_path()
            / numberedName(wanted.filename().string(), number, isDirectory, maxBytes))
            .string();
    };
    int number = 1;
    while (exists(candidate(number)))
        ++number;
    return candidate(number);
}

} // namespace RecoveryEngine
