#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/FileDescriptor.h"

#include <chrono>
#include <string>
#include <vector>

/// Runs programs of the system. Nothing that they do or print can do harm: what they print is
/// bounded, the time that they take too, and one that does not end is ended.
namespace HelperProgram {

struct Limits {
    std::chrono::milliseconds time;
    std::size_t output = std::size_t { 4 } << 20; ///< bytes
};

struct Outcome {
    /// Why it did not run to its end, if it did not: the system's own error when it could not be
    /// started, ETIMEDOUT when it took too long, EFBIG when it printed too much.
    SystemError error;
    int status = -1;        ///< its exit status; -1 when a signal ended it
    std::string output;     ///< what it printed
    std::string complaints; ///< the beginning of what it printed on standard error
    FileDescriptor
        descriptor; ///< the first open file that it sent over its standard output, if any

    bool succeeded() const { return !error && status == 0; }
};

/// Runs a program without a shell. `words` are its path and its arguments.
Outcome run(const std::vector<std::string>& words, Limits limits);

} // namespace HelperProgram
