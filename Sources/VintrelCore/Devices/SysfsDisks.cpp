#include "VintrelCore/Devices/DiskList.h"
#include "VintrelCore/Devices/SmartStatus.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <unordered_map>

namespace {

using Path = std::filesystem::path;

/// Block devices that are looked at, and partitions of one disk.
constexpr std::size_t maxEntries = 4'096;

/// The kernel counts in these, whatever the disk's own sectors are.
constexpr std::uint64_t sectorSize = 512;

struct Bus {
    std::string_view part; ///< of the device's place among all devices
    std::string_view name;
};
constexpr Bus buses[] = { { "/usb", "usb" }, { "/ata", "sata" }, { "/nvme", "nvme" },
    { "/mmc_host", "mmc" }, { "/virtio", "virtio" }, { "/virtual/block/loop", "loop" } };

/// The first line of an attribute, without blanks around it; empty when there is none.
std::string attribute(const Path& file)
{
    std::string line;
    std::ifstream stream(file);
    std::getline(stream, line);
    return std::string(Unicode::trimmed(line));
}

std::uint64_t sizeOf(const Path& device)
{
    return saturatingMultiply(Text::number(attribute(device / "size")).value_or(0), sectorSize);
}

/// The entries of a folder, by name.
std::vector<Path> entriesOf(const Path& folder)
{
    std::vector<Path> entries;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end;
         !error && entry != end && entries.size() < maxEntries; entry.increment(error))
        entries.push_back(entry->path());
    std::ranges::sort(entries);
    return entries;
}

std::string deviceFile(const Path& device)
{
    if (const auto name = attribute(device / "dm/name"); !name.empty())
        return "/dev/mapper/" + name;
    auto name = device.filename().string();
    std::ranges::replace(name, '!', '/'); // as the kernel writes it in a name of its folders
    return "/dev/" + name;
}

PartitionRecord partitionFrom(const Path& device)
{
    PartitionRecord record;
    record.bsdName = deviceFile(device);
    record.size = sizeOf(device);
    return record;
}

DiskRecord diskFrom(const Path& device, const std::string& smartctl)
{
    DiskRecord disk;
    disk.bsdName = deviceFile(device);
    disk.size = sizeOf(device);
    disk.mediaName = attribute(device / "device/model");
    std::error_code error;
    const auto place = std::filesystem::canonical(device, error).string();
    for (const auto& bus : buses)
        if (disk.busProtocol.empty() && place.find(bus.part) != std::string::npos)
            disk.busProtocol = bus.name;
    disk.smartStatus = SmartStatus::ask(disk.busProtocol == "loop" ? "" : smartctl, disk.bsdName);
    return disk;
}

} // namespace

namespace DiskList {

bool isNoDisk(std::string_view kernelName, bool isRemovable, std::uint64_t size)
{
    if (kernelName.starts_with("zram") || kernelName.starts_with("ram"))
        return true;
    // Loops over a network that are not connected are like those over a file.
    return size == 0
        && (isRemovable || kernelName.starts_with("loop") || kernelName.starts_with("nbd"));
}

std::vector<DiskRecord> fromSysfs(const std::string& folder, const std::string& smartctl)
{
    std::vector<DiskRecord> disks;
    std::unordered_map<std::string, std::size_t> diskOf; // by the kernel's names
    std::vector<Path> upper;                             // what lies on other devices
    for (const auto& device : entriesOf(folder)) {
        const auto name = device.filename().string();
        if (isNoDisk(name, attribute(device / "removable") == "1", sizeOf(device)))
            continue;
        if (!entriesOf(device / "slaves").empty()) {
            upper.push_back(device);
            continue;
        }
        diskOf[name] = disks.size();
        auto& disk = disks.emplace_back(diskFrom(device, smartctl));
        for (const auto& part : entriesOf(device)) {
            if (attribute(part / "partition").empty())
                continue;
            disk.partitions.push_back(partitionFrom(part));
            diskOf[part.filename().string()] = disks.size() - 1;
        }
    }
    for (const auto& device : upper) {
        const auto below = diskOf.find(entriesOf(device / "slaves").front().filename().string());
        if (below == diskOf.end())
            continue;
        disks[below->second].partitions.push_back(partitionFrom(device));
        diskOf.insert_or_assign(device.filename().string(), below->second);
    }
    return disks;
}

} // namespace DiskList
