#pragma once

#include "VintrelCore/Model/CarvedFile.h"
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

/// Marks the finds that are taken for one piece, and whose content has no checksums to prove that,
/// where a volume has a file that begins there, is as long and lies in pieces.
void overrule(std::span<CarvedFile> finds, std::span<const std::unique_ptr<Volume>> volumes);

} // namespace Overlay
