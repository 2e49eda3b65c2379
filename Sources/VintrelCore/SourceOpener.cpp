#include "VintrelCore/SourceOpener.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace {

constexpr std::string_view appleImageExtensions[] = { "asif", "dmg", "sparsebundle", "sparseimage", "udif" };

bool isAppleImage(const std::string& path)
{
    auto extension = std::filesystem::path(path).extension().string();
    std::ranges::transform(extension, extension.begin(), [](char character) {
        return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
    });
    return extension.starts_with('.') && std::ranges::count(appleImageExtensions, extension.substr(1)) != 0;
}

/// The error that fits opening a thing of this kind as an image; 0 for a regular file.
int refusalOf(mode_t mode)
{
    if (S_ISREG(mode))
        return 0;
    if (S_ISDIR(mode))
        return EISDIR;
    if (S_ISBLK(mode) || S_ISCHR(mode))
        return ENOTSUP;
    return ESPIPE; // pipes and sockets have no positions to read at
}

struct stat statusOf(const std::string& path)
{
    struct stat status { };
    if (::stat(path.c_str(), &status) == 0)
        return status;
    if (errno == ENOENT || errno == ENOTDIR)
        throw SourceError::notFound(path);
    throw SourceError::openFailed(path, errno);
}

} // namespace

SourceError SourceError::openFailed(const std::string& path, int systemError)
{
    return { Kind::openFailed, "Kunne ikke åbne " + path + ": " + std::generic_category().message(systemError) };
}

SourceError SourceError::authorizationFailed(const std::string& deviceName)
{
    return { Kind::authorizationFailed,
        "Adgang til " + deviceName
            + " blev afvist eller annulleret. Der kræves en administratoradgangskode for at læse fysiske diske." };
}

SourceError SourceError::notFound(const std::string& path) { return { Kind::notFound, "Filen findes ikke: " + path }; }

SourceError SourceError::attachFailed(const std::string& message)
{
    return { Kind::attachFailed, "Kunne ikke tilknytte diskbilledet: " + message };
}

namespace SourceOpener {

std::unique_ptr<DiskSource> openImage(const std::string& path)
{
    // Asked before opening: to open a pipe or a terminal line can wait forever, or do something to it.
    const auto status = statusOf(path);
    if (isAppleImage(path))
        throw SourceError::attachFailed("Apple-diskbilleder kan ikke åbnes endnu (" + path + ").");
    if (const int refusal = refusalOf(status.st_mode))
        throw SourceError::openFailed(path, refusal);

    DiskSource::Opened opened;
    opened.descriptor = FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened.descriptor)
        throw SourceError::openFailed(path, errno);
    // And asked again of what was opened, which may be something else by now.
    struct stat openedStatus { };
    if (::fstat(opened.descriptor.get(), &openedStatus) != 0)
        throw SourceError::openFailed(path, errno);
    if (const int refusal = refusalOf(openedStatus.st_mode))
        throw SourceError::openFailed(path, refusal);

    opened.path = path;
    opened.displayName = std::filesystem::path(path).filename().string();
    opened.size = static_cast<std::uint64_t>(openedStatus.st_size);
    return std::make_unique<DiskSource>(std::move(opened));
}

std::unique_ptr<DiskSource> openDevice(const std::string& bsdName, const std::string& /*displayName*/)
{
    const std::string path = "/dev/" + bsdName;
    const auto status = statusOf(path);
    if (const int refusal = refusalOf(status.st_mode))
        throw SourceError::openFailed(path, refusal);
    throw SourceError::openFailed(path, ENODEV); // a regular file, which is no device
}

} // namespace SourceOpener
