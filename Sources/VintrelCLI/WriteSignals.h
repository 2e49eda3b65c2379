#pragma once

#include <csignal>

/// While it lives, a write that cannot be done fails and does not end the program: one beyond the
/// largest file that is allowed (SIGXFSZ), and for a command that writes more than what it prints
/// also one to a pipe that nobody reads any more (SIGPIPE). There is at most one of these at a
/// time.
class WriteSignals {
public:
    enum class BrokenPipe { endsProgram, failsWrite };

    explicit WriteSignals(BrokenPipe brokenPipe);
    WriteSignals(const WriteSignals&) = delete;
    WriteSignals& operator=(const WriteSignals&) = delete;
    ~WriteSignals();

private:
    struct sigaction previousFileSize_ { };
    struct sigaction previousPipe_ { };
};
