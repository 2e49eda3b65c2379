#pragma once

#include "VintrelCLI/Console.h"
#include "VintrelCLI/Options.h"
#include "VintrelCLI/Output.h"
#include "VintrelCLI/Selection.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Imaging/RangeMap.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <memory>
#include <span>
#include <string>

/// What a command works with. Used by one thread.
struct Session {
    std::span<const std::string> arguments; ///< the command word first
    Options options;
    Selection selection;
    Console& console;
    Output& output;
    WorkProgress progress; ///< of every operation; shown by the state line alone
    std::unique_ptr<DiskSource> source;
    std::unique_ptr<RangeMap> sourceMap {}; ///< of an image that has a mapfile; none otherwise
    std::string reached {}; ///< Danish: how far the command has come, for when it is stopped
};

/// Opens the source that the command names, and marks what of it is known to be lost. Throws a
/// SourceError when it cannot be opened.
void openSource(Session& session);
