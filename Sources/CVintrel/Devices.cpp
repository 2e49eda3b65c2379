#include "CVintrel/Devices.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>

#ifdef __APPLE__
#include <sys/ioccom.h>
#include <sys/mount.h>
#include <sys/param.h>
#endif

#ifdef __linux__
#include <fstream>
#include <linux/fs.h>
#include <sstream>
#include <sys/sysmacros.h>
#include <unistd.h>
#endif

namespace CVintrel {

namespace {

constexpr std::uint32_t smallestBlock = 512;

} // namespace

bool meansNoDevice(int error)
{
#ifdef ENOMEDIUM
    if (error == ENOMEDIUM)
        return true;
#endif
    return error == ENXIO || error == ENODEV;
}

#ifdef __APPLE__

namespace {

// As <sys/disk.h> has them, which not every compiler for macOS brings along.
constexpr unsigned long getBlockSize = _IOR('d', 24, std::uint32_t);
constexpr unsigned long getBlockCount = _IOR('d', 25, std::uint64_t);

std::string_view fileName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

} // namespace

HelperPrograms helperPrograms()
{
    return { .authopen = "/usr/libexec/authopen",
        .hdiutil = "/usr/bin/hdiutil",
        .diskutil = "/usr/sbin/diskutil",
        .lsblk = {},
        .smartctl = {} };
}

std::string rawDevicePath(const std::string& name) { return "/dev/r" + name; }

bool isDisk(const std::string& path, mode_t mode)
{
    return S_ISBLK(mode) || (S_ISCHR(mode) && fileName(path).starts_with("rdisk"));
}

std::optional<DeviceGeometry> deviceGeometry(int descriptor)
{
    DeviceGeometry geometry;
    if (::ioctl(descriptor, getBlockCount, &geometry.blockCount) != 0)
        return std::nullopt;
    if (::ioctl(descriptor, getBlockSize, &geometry.blockSize) != 0)
        geometry.blockSize = 0;
    geometry.blockSize = std::max(geometry.blockSize, smallestBlock);
    return geometry;
}

bool turnOffCache(int descriptor)
{
    ::fcntl(descriptor, F_NOCACHE, 1);
    return false;
}

std::string deviceIdentity(const std::string& path)
{
    auto name = fileName(path);
    if (name.starts_with("rdisk"))
        name.remove_prefix(1);
    return name.starts_with("disk") ? std::string(name) : std::string();
}

std::string deviceHolding(const std::string& path)
{
    struct statfs status { };
    if (::statfs(path.c_str(), &status) != 0)
        return {};
    const std::string_view device = status.f_mntfromname;
    return device.starts_with("/dev/disk") ? std::string(fileName(device)) : std::string();
}

#else

std::string rawDevicePath(const std::string& name) { return "/dev/" + name; }

bool isDisk(const std::string& /*path*/, mode_t mode) { return S_ISBLK(mode); }

#endif

#ifdef __linux__

namespace {

/// Where distributions put programs of the system. Not PATH: an administrator's tools are seldom in
/// a user's.
std::string installed(const std::string& name)
{
    for (const char* folder : { "/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/", "/usr/local/sbin/",
             "/usr/local/bin/", "/run/current-system/sw/bin/" })
        if (::access((folder + name).c_str(), X_OK) == 0)
            return folder + name;
    return {};
}

std::string identity(dev_t device)
{
    return std::to_string(gnu_dev_major(device)) + ":" + std::to_string(gnu_dev_minor(device));
}

/// The kernel's table of mounts has blanks and the like in octal: "\040".
std::string unescaped(std::string_view text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
        if (text[at] == '\\' && text.size() - at > 3
            && std::all_of(&text[at + 1], &text[at + 1] + 3, isOctal)) {
            result += static_cast<char>(
                (text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
            at += 3;
        } else {
            result += text[at];
        }
    }
    return result;
}

/// What is mounted where this path lies, as the mount named it: "/dev/sda2". Empty when that is not
/// known.
std::string mountSource([[maybe_unused]] const std::string& path)
{
#ifdef STATX_MNT_ID
    struct statx status { };
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &status) != 0
        || (status.stx_mask & STATX_MNT_ID) == 0)
        return {};
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // The mount's number comes first; after a lone hyphen the kind of file system, and then the
        // source.
        if (!line.starts_with(std::to_string(status.stx_mnt_id) + " "))
            continue;
        const auto hyphen = line.find(" - ");
        std::istringstream rest(
            hyphen == std::string::npos ? std::string() : line.substr(hyphen + 3));
        std::string kind, source;
        rest >> kind >> source;
        return unescaped(source);
    }
#endif
    return {};
}

} // namespace

HelperPrograms helperPrograms()
{
    return { .authopen = {},
        .hdiutil = {},
        .diskutil = {},
        .lsblk = installed("lsblk"),
        .smartctl = installed("smartctl") };
}

std::optional<DeviceGeometry> deviceGeometry(int descriptor)
{
    std::uint64_t size = 0;
    if (::ioctl(descriptor, BLKGETSIZE64, &size) != 0)
        return std::nullopt;
    int blockSize = 0;
    if (::ioctl(descriptor, BLKSSZGET, &blockSize) != 0)
        blockSize = 0;
    DeviceGeometry geometry;
    geometry.blockSize
        = std::max(static_cast<std::uint32_t>(std::max(blockSize, 0)), smallestBlock);
    geometry.blockCount = size / geometry.blockSize;
    return geometry;
}

bool turnOffCache(int descriptor)
{
    // The cache does not only remember. It reads ahead into damage, and in units of its own: of a
    // page with one bad sector it gives none.
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags != -1 && ::fcntl(descriptor, F_SETFL, flags | O_DIRECT) == 0;
}

std::string deviceIdentity(const std::string& path)
{
    struct stat status { };
    return ::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode) ? identity(status.st_rdev)
                                                                         : std::string();
}

std::string deviceHolding(const std::string& path)
{
    struct stat status { };
    if (::stat(path.c_str(), &status) != 0)
        return {};
    // File systems that can lie on several devices (btrfs) have a number that is no device's.
    return gnu_dev_major(status.st_dev) != 0 ? identity(status.st_dev)
                                             : deviceIdentity(mountSource(path));
}

#elif !defined(__APPLE__)

HelperPrograms helperPrograms() { return {}; }

std::optional<DeviceGeometry> deviceGeometry(int /*descriptor*/)
{
    errno = ENOTSUP;
    return std::nullopt;
}

bool turnOffCache(int /*descriptor*/) { return false; }

std::string deviceIdentity(const std::string& /*path*/) { return {}; }

std::string deviceHolding(const std::string& /*path*/) { return {}; }

#endif

} // namespace CVintrel
