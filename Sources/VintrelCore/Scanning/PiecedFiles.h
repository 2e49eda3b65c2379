#pragma once

#include "VintrelCore/Fragments/Look.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/Volume.h"

#include <span>

class DiskSource;
class WorkProgress;

/// Files in pieces, put together by what the file systems know and what the contents prove.
namespace PiecedFiles {

/// Settles where the deleted files of FAT and exFAT volumes lie of which no chain is left.
/// `progress` may be none.
void settleDeleted(DiskSource& source, std::span<const std::unique_ptr<Volume>> volumes,
    Fragments::Look look, const WorkProgress* progress);

/// Adds to the carved files of a sweep those whose pieces were found, and puts them in the place of
/// finds with the same head that they disprove. `volumes`: all that are known, whose living files
/// own what they hold. `progress` may be none.
void putTogether(DiskSource& source, std::span<const std::unique_ptr<Volume>> volumes,
    DeepScanResult& finds, const WorkProgress* progress);

} // namespace PiecedFiles
