#include "VintrelCore/Devices/DeviceAccess.h"

#include "VintrelCore/Devices/HelperProgram.h"
#include "VintrelCore/Devices/PropertyList/PropertyList.h"
#include "VintrelCore/Devices/SourceError.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace {

using namespace std::chrono_literals;

/// Long enough to find a password, and for a large image to be checked.
constexpr HelperProgram::Limits askingLimits { .time = 10min };
constexpr HelperProgram::Limits detachLimits { .time = 30s };

/// The last line that a program complained with, or what else is known of its failure.
std::string reasonOf(const HelperProgram::Outcome& outcome, const std::string& program)
{
    if (outcome.error)
        return program + ": " + outcome.error.message();
    auto complaints = Unicode::trimmed(outcome.complaints);
    if (const auto lineFeed = complaints.rfind('\n'); lineFeed != std::string_view::npos)
        complaints.remove_prefix(lineFeed + 1);
    if (!complaints.empty())
        return Unicode::escaped(complaints);
    return outcome.succeeded() ? program + " gav intet diskbillede" : program + " mislykkedes";
}

/// The number of the whole disk that "/dev/disk4" and "/dev/disk4s1" belong to.
std::optional<unsigned> diskNumber(std::string_view device)
{
    constexpr std::string_view beginning = "/dev/disk";
    if (!device.starts_with(beginning))
        return std::nullopt;
    device.remove_prefix(beginning.size());
    return Text::number<unsigned>(device.substr(0, device.find('s')));
}

} // namespace

namespace DeviceAccess {

FileDescriptor openWithAuthorization(
    const std::string& authopen, const std::string& path, const std::string& displayName)
{
    auto outcome = HelperProgram::run({ authopen, "-stdoutpipe", path }, askingLimits);
    if (outcome.error)
        throw SourceError::openFailed(path, outcome.error);
    if (outcome.status != 0) // it was refused, or no password was given
        throw SourceError::authorizationFailed(displayName);
    if (!outcome.descriptor)
        throw SourceError::openFailed(path, SystemError(EBADF));
    struct stat wanted {
    }, received {};
    if (::stat(path.c_str(), &wanted) != 0 || ::fstat(outcome.descriptor.get(), &received) != 0)
        throw SourceError::openFailed(path, SystemError::last());
    if ((wanted.st_mode & S_IFMT) != (received.st_mode & S_IFMT)
        || wanted.st_rdev != received.st_rdev)
        throw SourceError::openFailed(path, SystemError(EBADF));
    return std::move(outcome.descriptor);
}

AttachedImage attachImage(const std::string& hdiutil, const std::string& path)
{
    if (hdiutil.empty())
        throw SourceError::attachFailed(
            "Apple-diskbilleder kan kun åbnes på macOS (" + path + ").");
    // As an absolute path no name looks like an option.
    std::error_code error;
    const auto absolutePath = std::filesystem::absolute(path, error).string();
    const auto outcome = HelperProgram::run(
        { hdiutil, "attach", "-readonly", "-nomount", "-plist", absolutePath }, askingLimits);
    const auto list = outcome.succeeded() ? PropertyList::parse(outcome.output) : std::nullopt;

    // The image's own disk gets the lowest number that is free; the disk that an APFS container
    // within becomes, a higher one.
    std::optional<unsigned> number;
    if (list)
        for (const auto& entity : list->root()["system-entities"].items())
            if (const auto found = diskNumber(entity["dev-entry"].text());
                found && (!number || *found < *number))
                number = found;
    if (!number)
        throw SourceError::attachFailed(reasonOf(outcome, hdiutil));

    const auto device = "/dev/disk" + std::to_string(*number);
    return { device, [hdiutil, device] {
                HelperProgram::run({ hdiutil, "detach", device }, detachLimits);
            } };
}

} // namespace DeviceAccess
