#include "VintrelCore/Devices/DiskList.h"

#include "VintrelCore/Devices/HelperProgram.h"
#include "VintrelCore/Devices/PropertyList/PropertyList.h"
#include "VintrelCore/Devices/SmartStatus.h"
#include "VintrelCore/Foundation/Text.h"

#include <CVintrel/Devices.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace {

using namespace std::chrono_literals;

/// A disk that is dying can take its time to answer.
constexpr HelperProgram::Limits limits { .time = 20s };

/// Disks that are asked about one by one.
constexpr std::size_t maxDisks = 256;

constexpr std::string_view notSupported = "Not Supported";

std::optional<PropertyList> propertyListFrom(const std::vector<std::string>& words)
{
    const auto outcome = HelperProgram::run(words, limits);
    return outcome.succeeded() ? PropertyList::parse(outcome.output) : std::nullopt;
}

PartitionRecord partitionFrom(const PropertyList::Value& entry)
{
    return { .bsdName = entry["DeviceIdentifier"].text(),
        .size = entry["Size"].number(),
        .content = entry["Content"].text(),
        .volumeName = entry["VolumeName"].text(),
        .mountPoint = entry["MountPoint"].text() };
}

std::string orElse(std::string text, std::string_view otherwise)
{
    return text.empty() ? std::string(otherwise) : std::move(text);
}

/// The pairs of one line of lsblk: NAME="sda" SIZE="512".
using Pairs = std::unordered_map<std::string, std::string>;

/// The text up to the closing quote, which is taken off the front of `line`. Quotes, control
/// characters and what the locale does not know stand there as "\x22".
std::string takeQuoted(std::string_view& line)
{
    std::string text;
    while (!line.empty() && line.front() != '"') {
        const auto escape = line.substr(0, 4);
        const auto byte = escape.size() == 4 && escape.starts_with("\\x")
            ? Text::number<std::uint32_t>(escape.substr(2), 16)
            : std::nullopt;
        if (byte) {
            text += static_cast<char>(*byte);
            line.remove_prefix(4);
        } else {
            text += line.front();
            line.remove_prefix(1);
        }
    }
    line.remove_prefix(std::min<std::size_t>(line.size(), 1));
    return text;
}

Pairs pairsOf(std::string_view line)
{
    constexpr std::string_view opening = "=\"";
    Pairs pairs;
    for (auto at = line.find(opening); at != std::string_view::npos; at = line.find(opening)) {
        std::string name(line.substr(0, at));
        line.remove_prefix(at + opening.size());
        pairs[std::move(name)] = takeQuoted(line);
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    }
    return pairs;
}

std::uint64_t sizeOf(Pairs& device) { return Text::number(device["SIZE"]).value_or(0); }

PartitionRecord partitionFrom(Pairs& device)
{
    return { .bsdName = device["PATH"],
        .size = sizeOf(device),
        .content = orElse(device["FSTYPE"], device["PARTTYPENAME"]),
        .volumeName = device["LABEL"],
        .mountPoint = device["MOUNTPOINT"] };
}

} // namespace

namespace DiskList {

std::vector<DiskRecord> load()
{
    const auto programs = CVintrel::helperPrograms();
    if (!programs.diskutil.empty())
        return fromDiskutil(programs.diskutil);
    return programs.lsblk.empty() ? fromSysfs("/sys/block", programs.smartctl)
                                  : fromLsblk(programs.lsblk, programs.smartctl);
}

std::vector<DiskRecord> fromDiskutil(const std::string& diskutil)
{
    std::vector<DiskRecord> disks;
    const auto list = propertyListFrom({ diskutil, "list", "-plist" });
    if (!list)
        return disks;
    for (const auto& entry : list->root()["AllDisksAndPartitions"].items()) {
        auto whole = partitionFrom(entry);
        if (!whole.bsdName.starts_with("disk")) // nothing else becomes an argument
            continue;
        if (disks.size() == maxDisks)
            break;
        auto& disk = disks.emplace_back();
        disk.bsdName = whole.bsdName;
        disk.size = whole.size;
        disk.smartStatus = notSupported;
        if (const auto info = propertyListFrom({ diskutil, "info", "-plist", disk.bsdName })) {
            disk.mediaName = info->root()["MediaName"].text();
            disk.busProtocol = info->root()["BusProtocol"].text();
            disk.smartStatus = orElse(info->root()["SMARTStatus"].text(), notSupported);
        }
        for (const auto& partition : entry["Partitions"].items())
            disk.partitions.push_back(partitionFrom(partition));
        for (const auto& volume : entry["APFSVolumes"].items()) {
            auto& partition = disk.partitions.emplace_back(partitionFrom(volume));
            partition.content = orElse(
                std::move(partition.content), "APFS Volume"); // what diskutil prints itself
        }
        if (disk.partitions.empty() && (!whole.volumeName.empty() || !whole.mountPoint.empty()))
            disk.partitions.push_back(std::move(whole));
    }
    return disks;
}

std::vector<DiskRecord> fromLsblk(const std::string& lsblk, const std::string& smartctl)
{
    constexpr auto columns
        = "KNAME,PKNAME,PATH,TYPE,RM,SIZE,MODEL,TRAN,FSTYPE,PARTTYPENAME,LABEL,MOUNTPOINT";
    const auto outcome
        = HelperProgram::run({ lsblk, "--all", "--pairs", "--bytes", "--output", columns }, limits);
    std::vector<DiskRecord> disks;
    if (!outcome.succeeded())
        return disks;
    std::unordered_map<std::string, std::size_t>
        diskOf; // by the kernel's names of it and of all that is on it
    for (std::string_view text = outcome.output; !text.empty();) {
        auto device = pairsOf(Text::takeLine(text));
        auto record = partitionFrom(device);
        const auto& kernelName = device["KNAME"];
        if (record.bsdName.empty() || !Text::number(device["SIZE"])
            || isNoDisk(kernelName, device["RM"] == "1", record.size))
            continue;

        // A disk comes before what is on it; what lies on several disks comes with one of them.
        if (const auto& parent = device["PKNAME"]; !parent.empty()) {
            const auto disk = diskOf.find(parent);
            if (disk == diskOf.end())
                continue;
            disks[disk->second].partitions.push_back(std::move(record));
            diskOf.insert_or_assign(kernelName, disk->second);
            continue;
        }
        if (disks.size() == maxDisks)
            break;
        diskOf[kernelName] = disks.size();
        const auto& type = device["TYPE"];
        auto& disk = disks.emplace_back();
        disk.bsdName = record.bsdName;
        disk.mediaName = device["MODEL"];
        disk.size = record.size;
        disk.busProtocol = orElse(device["TRAN"], type == "disk" ? "" : type);
        disk.smartStatus
            = type == "disk" ? SmartStatus::ask(smartctl, disk.bsdName) : std::string(notSupported);
        if (!record.content.empty() || !record.mountPoint.empty())
            disk.partitions.push_back(std::move(record));
    }
    return disks;
}

} // namespace DiskList
