#pragma once

#include "VintrelCore/Model/Volume.h"

#include <span>

class DiskSource;

/// What trusted volumes have in use cannot be another volume's any more.
namespace Overlay {

/// Lowers the chances of files of volumes that a deep scan found or rebuilt, where bytes of them
/// lie in what the volumes that the tables name have in use: to `poor` where the file's first byte
/// does, to `partial` otherwise. The time is that of sorting both.
void judge(DiskSource& source, std::span<const std::unique_ptr<Volume>> trusted,
    std::span<const std::unique_ptr<Volume>> found);

} // namespace Overlay
