#pragma once

#include "VintrelCLI/Console.h"
#include "VintrelCLI/Output.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <string_view>

/// What a command works with. Used by one thread.
struct Session {
    std::span<const std::string> arguments; ///< the command word first
    Console& console;
    Output& output;
    WorkProgress progress; ///< of every operation; shown by the state line alone
    std::unique_ptr<DiskSource> source;
    std::string reached {}; ///< Danish: how far the command has come, for when it is stopped

    bool has(std::string_view option) const { return std::ranges::count(arguments, option) != 0; }
};

/// Opens the source that the command names, and marks what of it is known to be lost. Throws a
/// SourceError when it cannot be opened.
void openSource(Session& session);
