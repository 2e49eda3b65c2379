#pragma once

#include "VintrelCore/Devices/SourceError.h"
#include "VintrelCore/Disk/DiskSource.h"

#include <memory>
#include <string>

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
