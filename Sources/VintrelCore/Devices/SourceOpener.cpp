#include "VintrelCore/Devices/SourceOpener.h"

#include "VintrelCore/Devices/DeviceAccess.h"
#include "VintrelCore/Foundation/Text.h"

#include <CVintrel/Devices.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace {

constexpr std::string_view appleImageExtensions[]
    = { "asif", "dmg", "sparsebundle", "sparseimage", "udif" };

/// Of images that grow (sparseimage and asif), of encrypted ones, and of the trailer of a dmg.
constexpr std::string_view beginningMarks[] = { "encrcdsa", "shdw", "sprs" };
constexpr std::string_view encryptedEndMark = "cdsaencr";
constexpr std::string_view trailerMark = "koly";
constexpr std::streamoff trailerSize = 512;

/// The last component of a path, which a completed folder name ends with a slash behind.
std::string nameOf(const std::string& path)
{
    const std::filesystem::path typed(path);
    return (typed.has_filename() ? typed : typed.parent_path()).filename().string();
}

bool isAppleImage(const std::string& path)
{
    const auto extension
        = Text::lowerCase(std::filesystem::path(nameOf(path)).extension().string());
    return extension.starts_with('.')
        && std::ranges::count(appleImageExtensions, extension.substr(1)) != 0;
}

/// Whether a file with the name of an Apple image holds the bytes of a disk as they are. An image
/// in Apple's own formats begins or ends with the mark of one of them.
bool isRaw(const std::string& path, const struct stat& status)
{
    if (!S_ISREG(status.st_mode))
        return false;
    std::ifstream file(path, std::ios::binary);
    const auto textAt = [&](std::streamoff offset, std::ios::seekdir from) {
        std::string text(8, '\0');
        file.clear();
        file.seekg(offset, from);
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        return text;
    };
    const auto beginning = textAt(0, std::ios::beg);
    const bool isMarked = std::ranges::any_of(
        beginningMarks, [&](std::string_view mark) { return beginning.starts_with(mark); });
    return !isMarked && !textAt(-trailerSize, std::ios::end).starts_with(trailerMark)
        && textAt(-8, std::ios::end) != encryptedEndMark;
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

/// `typed`, here and below: the name by which the user knows what is at the path.
struct stat statusOf(const std::string& path, const std::string& typed)
{
    struct stat status { };
    if (::stat(path.c_str(), &status) == 0)
        return status;
    if (errno == ENOENT || errno == ENOTDIR)
        throw SourceError::notFound(typed);
    throw SourceError::openFailed(typed, SystemError::last());
}

FileDescriptor openDirectly(
    const std::string& path, const std::string& displayName, const std::string& typed)
{
    // Not O_NONBLOCK: with that a drive without a medium would open.
    FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (descriptor)
        return descriptor;
    if (errno == EACCES || errno == EPERM)
        throw SourceError::authorizationFailed(displayName);
    throw SourceError::openFailed(typed, SystemError::last());
}

/// What is known of a disk that is open already.
DiskSource::Opened opened(FileDescriptor descriptor, const std::string& path,
    const std::string& displayName, const std::string& typed)
{
    struct stat status { };
    if (::fstat(descriptor.get(), &status) != 0)
        throw SourceError::openFailed(typed, SystemError::last());
    if (!CVintrel::isDisk(path, status.st_mode)) // it became something else just now
        throw SourceError::openFailed(typed, SystemError(ENODEV));
    const auto geometry = CVintrel::deviceGeometry(descriptor.get());
    if (!geometry)
        throw SourceError::openFailed(typed, SystemError::last());
    if (geometry->blockCount > std::numeric_limits<std::uint64_t>::max() / geometry->blockSize)
        throw SourceError::openFailed(typed, SystemError(EOVERFLOW));

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

std::unique_ptr<DiskSource> openDisk(
    const std::string& path, const std::string& displayName, const std::string& typed)
{
    const auto authopen = CVintrel::helperPrograms().authopen;
    auto descriptor = authopen.empty()
        ? openDirectly(path, displayName, typed)
        : DeviceAccess::openWithAuthorization(authopen, path, displayName);
    return std::make_unique<DiskSource>(opened(std::move(descriptor), path, displayName, typed));
}

/// Whoever attached an image may read its disk.
std::unique_ptr<DiskSource> openAppleImage(const std::string& path, const std::string& displayName)
{
    auto image = DeviceAccess::attachImage(CVintrel::helperPrograms().hdiutil, path);
    try {
        auto disk = opened(
            openDirectly(image.device, displayName, path), image.device, displayName, path);
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
    const auto status = statusOf(path, path);
    const auto displayName = nameOf(path);
    // Where nothing can attach it, a raw image is opened whatever it is called.
    const bool canAttach = !CVintrel::helperPrograms().hdiutil.empty();
    if (isAppleImage(path) && (canAttach || !isRaw(path, status)))
        return openAppleImage(path, displayName);
    if (CVintrel::isDisk(path, status.st_mode))
        return openDisk(path, displayName, path);
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
    const auto status = statusOf(path, bsdName);
    if (CVintrel::isDisk(path, status.st_mode))
        return openDisk(path, displayName, bsdName);
    if (const auto refusal = refusalOf(status.st_mode))
        throw SourceError::openFailed(bsdName, refusal);
    throw SourceError::openFailed(bsdName, SystemError(ENODEV)); // a regular file
}

} // namespace SourceOpener
