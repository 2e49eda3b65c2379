#include "VintrelCLI/WriteSignals.h"

namespace {

/// A handler that does nothing: other than an ignored signal it is not inherited by the programs
/// that this one starts.
void let(int /*signal*/) { }

struct sigaction survive(int signal)
{
    struct sigaction action {
    }, previous {};
    action.sa_handler = let;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, &previous);
    return previous;
}

} // namespace

WriteSignals::WriteSignals(BrokenPipe brokenPipe)
{
    previousFileSize_ = survive(SIGXFSZ);
    if (brokenPipe == BrokenPipe::failsWrite)
        previousPipe_ = survive(SIGPIPE);
    else
        ::sigaction(SIGPIPE, nullptr, &previousPipe_);
}

WriteSignals::~WriteSignals()
{
    ::sigaction(SIGXFSZ, &previousFileSize_, nullptr);
    ::sigaction(SIGPIPE, &previousPipe_, nullptr);
}
