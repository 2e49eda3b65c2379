#include "VintrelCore/Devices/SourceOpener.h"

#include "VintrelCore/Devices/DeviceAccess.h"
#include "VintrelCore/Foundation/Text.h"

#include <CVintrel/Devices.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace {

constexpr std::string_view appleImageExtensions[]
    = { "asif", "dmg", "sparsebundle", "sparseimage", "udif" };

bool isAppleImage(const std::string& path)
{
    const auto extension = Text::lowerCase(std::filesystem::path(path).extension().string());
    return extension.starts_with('.')
        && std::ranges::count(appleImageExtensions, extension.substr(1)) != 0;
}

/// The error that fits opening a thing of this kind as an image; none for a regular file.
SystemError refusalOf(mode_t mode)
{
    if (S_ISREG(mode))
        return {};
    if (S_ISDIR(mode))
        return SystemError(EISDIR);
    if (S_ISBLK(mode) || S_ISCHR(mode))
        return SystemError(ENOTSUP);
    return SystemError(ESPIPE); // pipes and sockets have no positions to read at
}

struct stat statusOf(const std::string& path)
{
    struct stat status { };
    if (::stat(path.c_str(), &status) == 0)
        return status;
    if (errno == ENOENT || errno == ENOTDIR)
        throw SourceError::notFound(path);
    throw SourceError::openFailed(path, SystemError::last());
}

FileDescriptor openDirectly(const std::string& path, const std::string& displayName)
{
    // Not O_NONBLOCK: with that a drive without a medium would open.
    FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (descriptor)
        return descriptor;
    if (errno == EACCES || errno == EPERM)
        throw SourceError::authorizationFailed(displayName);
    throw SourceError::openFailed(path, SystemError::last());
}

/// What is known of a disk that is open already.
DiskSource::Opened opened(
    FileDescriptor descriptor, const std::string& path, const std::string& displayName)
{
    struct stat status { };
    if (::fstat(descriptor.get(), &status) != 0)
        throw SourceError::openFailed(path, SystemError::last());
    if (!CVintrel::isDisk(path, status.st_mode)) // it became something else just now
        throw SourceError::openFailed(path, SystemError(ENODEV));
    const auto geometry = CVintrel::deviceGeometry(descriptor.get());
    if (!geometry)
        throw SourceError::openFailed(path, SystemError::last());
    if (geometry->blockCount > std::numeric_limits<std::uint64_t>::max() / geometry->blockSize)
        throw SourceError::openFailed(path, SystemError(EOVERFLOW));

    DiskSource::Opened opened;
    opened.needsAlignment = CVintrel::turnOffCache(descriptor.get());
    opened.descriptor = std::move(descriptor);
    opened.path = path;
    opened.displayName = displayName;
    opened.size = geometry->blockSize * geometry->blockCount;
    opened.sectorSize = geometry->blockSize;
    opened.isDevice = true;
    // Links lead to devices, such as those that Linux names after makers and serial numbers.
    std::error_code error;
    const auto device = std::filesystem::canonical(path, error);
    const auto name = (error ? std::filesystem::path(path) : device).filename().string();
    opened.bsdName = name.starts_with("rdisk") ? name.substr(1) : name;
    return opened;
}

std::unique_ptr<DiskSource> openDisk(const std::string& path, const std::string& displayName)
{
    const auto authopen = CVintrel::helperPrograms().authopen;
    auto descriptor = authopen.empty()
        ? openDirectly(path, displayName)
        : DeviceAccess::openWithAuthorization(authopen, path, displayName);
    return std::make_unique<DiskSource>(opened(std::move(descriptor), path, displayName));
}

/// Whoever attached an image may read its disk.
std::unique_ptr<DiskSource> openAppleImage(const std::string& path, const std::string& displayName)
{
    auto image = DeviceAccess::attachImage(CVintrel::helperPrograms().hdiutil, path);
    try {
        auto disk = opened(openDirectly(image.device, displayName), image.device, displayName);
        disk.cleanup = image.detach;
        return std::make_unique<DiskSource>(std::move(disk));
    } catch (const SourceError&) {
        image.detach();
        throw;
    }
}

} // namespace

namespace SourceOpener {

std::unique_ptr<DiskSource> openImage(const std::string& path)
{
    // Asked before opening: to open a pipe or a terminal line can wait forever, or do something to
    // it.
    const auto status = statusOf(path);
    const auto displayName = std::filesystem::path(path).filename().string();
    if (isAppleImage(path))
        return openAppleImage(path, displayName);
    if (CVintrel::isDisk(path, status.st_mode))
        return openDisk(path, displayName);
    if (const auto refusal = refusalOf(status.st_mode))
        throw SourceError::openFailed(path, refusal);

    DiskSource::Opened opened;
    opened.descriptor = FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened.descriptor)
        throw SourceError::openFailed(path, SystemError::last());
    // And asked again of what was opened, which may be something else by now.
    struct stat openedStatus { };
    if (::fstat(opened.descriptor.get(), &openedStatus) != 0)
        throw SourceError::openFailed(path, SystemError::last());
    if (const auto refusal = refusalOf(openedStatus.st_mode))
        throw SourceError::openFailed(path, refusal);

    opened.path = path;
    opened.displayName = displayName;
    opened.size = static_cast<std::uint64_t>(openedStatus.st_size);
    return std::make_unique<DiskSource>(std::move(opened));
}

std::unique_ptr<DiskSource> openDevice(const std::string& bsdName, const std::string& displayName)
{
    const auto path = CVintrel::rawDevicePath(bsdName);
    const auto status = statusOf(path);
    if (CVintrel::isDisk(path, status.st_mode))
        return openDisk(path, displayName);
    if (const auto refusal = refusalOf(status.st_mode))
        throw SourceError::openFailed(path, refusal);
    throw SourceError::openFailed(path, SystemError(ENODEV)); // a regular file, which is no device
}

} // namespace SourceOpener
