#include "VintrelCore/Devices/DeviceStack.h"

#include "VintrelCore/Devices/HelperProgram.h"
#include "VintrelCore/Devices/PropertyList/PropertyList.h"

#include <CVintrel/Devices.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string_view>

namespace {

using namespace std::chrono_literals;

/// Devices below one that are looked at; no real machine comes near it.
constexpr std::size_t maxDevices = 1'000;

/// Goes down from `upper` until `lower` is met; `below` names the devices that one lies directly
/// on.
bool reaches(const std::string& upper, const std::string& lower,
    const std::function<std::vector<std::string>(const std::string&)>& below)
{
    std::vector<std::string> devices { upper };
    for (std::size_t next = 0; next < std::min(devices.size(), maxDevices); ++next) {
        if (devices[next] == lower)
            return true;
        for (auto& device : below(std::string(devices[next])))
            if (std::ranges::count(devices, device) == 0)
                devices.push_back(std::move(device));
    }
    return false;
}

std::string firstLine(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

/// The path itself, or the nearest folder above it that exists.
std::optional<std::string> existing(const std::string& path)
{
    std::error_code error;
    for (auto at = std::filesystem::absolute(path, error); !at.empty(); at = at.parent_path()) {
        if (std::filesystem::exists(at, error))
            return at.string();
        if (at == at.parent_path())
            break;
    }
    return std::nullopt;
}

} // namespace

namespace DeviceStack {

bool holds(const DiskSource& source, const std::string& path)
{
    if (!source.isDevice())
        return false;
    const auto destination = existing(path);
    const auto upper = destination ? CVintrel::deviceHolding(*destination) : std::string();
    const auto lower = CVintrel::deviceIdentity(source.path());
    if (upper.empty() || lower.empty())
        return false;
    const auto diskutil = CVintrel::helperPrograms().diskutil;
    return diskutil.empty() ? liesOn(upper, lower, "/sys/dev/block")
                            : liesOnByDiskutil(upper, lower, diskutil);
}

bool liesOn(const std::string& upper, const std::string& lower, const std::string& sysfs)
{
    return reaches(upper, lower, [&sysfs](const std::string& device) {
        std::vector<std::string> below;
        std::error_code error;
        const auto folder
            = std::filesystem::canonical(std::filesystem::path(sysfs) / device, error);
        if (error)
            return below;
        if (std::filesystem::exists(folder / "partition", error))
            below.push_back(firstLine(folder.parent_path() / "dev"));
        for (std::filesystem::directory_iterator entry(folder / "slaves", error), end;
             !error && entry != end; entry.increment(error))
            below.push_back(firstLine(entry->path() / "dev"));
        // A disk image that is attached as a device is written to where its file lies.
        if (const auto file = firstLine(folder / "loop/backing_file"); !file.empty())
            below.push_back(CVintrel::deviceHolding(file));
        return below;
    });
}

bool liesOnByDiskutil(
    const std::string& upper, const std::string& lower, const std::string& diskutil)
{
    return reaches(upper, lower, [&diskutil](const std::string& device) {
        std::vector<std::string> below;
        if (!device.starts_with("disk"))
            return below;
        const auto outcome
            = HelperProgram::run({ diskutil, "info", "-plist", device }, { .time = 20s });
        const auto info = outcome.succeeded() ? PropertyList::parse(outcome.output) : std::nullopt;
        if (!info)
            return below;
        below.push_back(info->root()["ParentWholeDisk"].text());
        for (const auto& store : info->root()["APFSPhysicalStores"].items())
            below.push_back(store["APFSPhysicalStore"].text());
        return below;
    });
}

} // namespace DeviceStack
