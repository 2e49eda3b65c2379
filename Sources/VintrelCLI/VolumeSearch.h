#pragma once

#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <optional>

struct Session;

/// What the deep scan of a command looks for; none when the command wants no deep scan.
std::optional<DeepScanOptions> deepScanByOption(const Session& session);

/// What the tables of the source name, and with a deep scan what is found beyond them. Notes and
/// counts are printed on the way. They live until the process ends.
const VolumeList& allVolumes(Session& session, const std::optional<DeepScanOptions>& deep);
