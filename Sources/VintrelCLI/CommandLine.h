#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The exit statuses of the program. A command that a signal stopped ends with `exitBySignal` and
/// the signal's number, as shells have it; one whose source stopped answering, with `exitNoSource`.
enum ExitStatus {
    exitDone = 0,
    exitUsage = 1,
    exitNoSource = 2,
    exitOutOfMemory = 3,
    exitBySignal = 128
};

/// Runs one command. `arguments` is the command line without the program's path; results go to
/// `out`, a line or a block of lines in each write, and the reason why a source could not be opened
/// to `err`. Returns the exit status.
int run(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);

/// The ranges that VINTREL_SIMULATE_BAD names: "start-end" in decimal bytes, the end not included,
/// separated by commas. What is no such range is left out.
std::vector<ByteRange> parseByteRanges(std::string_view text);
