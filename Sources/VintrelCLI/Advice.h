#pragma once

#include <string_view>

class SourceError;
struct ImagingStats;
struct RecoveryResult;

/// Danish sentences that say what a user can do next when something went wrong.
namespace Advice {

std::string_view after(const SourceError& error);
/// Empty when nothing kept files from being copied.
std::string_view after(const RecoveryResult& result);
/// At the end of a run, which the user or the disk may have stopped. Empty when it is done.
std::string_view after(const ImagingStats& stats, bool wasStopped);

} // namespace Advice
