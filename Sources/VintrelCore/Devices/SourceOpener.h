#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Model/FileTypes.h"

#include <memory>
#include <stdexcept>
#include <string>

/// Why a source could not be opened. what() is the Danish sentence for the user.
class SourceError : public std::runtime_error {
public:
    enum class Kind { openFailed, authorizationFailed, notFound, attachFailed };

    /// `systemError` is an errno value; the sentence ends in the system's own words for it.
    static SourceError openFailed(const std::string& path, int systemError);
    static SourceError authorizationFailed(const std::string& deviceName);
    static SourceError notFound(const std::string& path);
    static SourceError attachFailed(const std::string& message);

    Kind kind() const { return kind_; }

private:
    SourceError(Kind kind, const std::string& description)
        : std::runtime_error(description)
        , kind_(kind)
    {
    }

    Kind kind_;
};

/// Opens sources for reading only. These are the only functions of the core that throw, and what
/// they throw is SourceError.
namespace SourceOpener {

/// Opens an image file, or a disk by the path of its device. Apple's disk images are attached
/// first, and detached when the source is closed. Anything else but a regular file is refused, and
/// never waited for.
std::unique_ptr<DiskSource> openImage(const std::string& path);

/// Opens a whole disk by its device name, such as "disk4". On macOS the user is asked for an
/// administrator's password.
std::unique_ptr<DiskSource> openDevice(const std::string& bsdName, const std::string& displayName);

} // namespace SourceOpener
