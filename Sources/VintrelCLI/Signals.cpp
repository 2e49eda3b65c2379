#include "VintrelCLI/Signals.h"

#include <CVintrel/Platform.h>

#include <atomic>

namespace {

std::atomic<WorkProgress*> workToCancel = nullptr;
static_assert(std::atomic<WorkProgress*>::is_always_lock_free, "a signal handler loads it");
volatile std::sig_atomic_t receivedSignal = 0; // 0: none
std::atomic<bool> isStateAsked = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void setDefault(int signal)
{
    struct sigaction action { };
    action.sa_handler = SIG_DFL;
    ::sigaction(signal, &action, nullptr);
}

void cancelWork(int signal)
{
    receivedSignal = signal;
    setDefault(SIGINT);
    setDefault(SIGTERM);
    setDefault(SIGHUP);
    if (auto* const work = workToCancel.load())
        work->cancel();
}

/// Returns what was there before.
struct sigaction handle(int signal)
{
    struct sigaction previous { };
    ::sigaction(signal, nullptr, &previous);
    if (previous.sa_handler == SIG_IGN)
        return previous;
    struct sigaction action { };
    action.sa_handler = cancelWork;
    action.sa_flags = SA_RESTART; // a line that is just being printed is not lost
    // When both come together, the second one waits until the first has been handled, and so is the
    // second.
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaddset(&action.sa_mask, SIGHUP);
    ::sigaction(signal, &action, nullptr);
    return previous;
}

} // namespace

SignalCancellation::SignalCancellation(WorkProgress& work)
{
    workToCancel = &work;
    receivedSignal = 0;
    previousInterrupt_ = handle(SIGINT);
    previousTerminate_ = handle(SIGTERM);
    previousHangUp_ = handle(SIGHUP);
}

SignalCancellation::~SignalCancellation()
{
    ::sigaction(SIGINT, &previousInterrupt_, nullptr);
    ::sigaction(SIGTERM, &previousTerminate_, nullptr);
    ::sigaction(SIGHUP, &previousHangUp_, nullptr);
    workToCancel = nullptr;
}

std::optional<int> SignalCancellation::received()
{
    const int signal = receivedSignal;
    return signal != 0 ? std::optional(signal) : std::nullopt;
}

StateRequests::StateRequests()
{
    isStateAsked = false;
    for (const int signal : CVintrel::stateSignals()) {
        struct sigaction action { };
        action.sa_handler = [](int) { isStateAsked = true; };
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        struct sigaction previous { };
        ::sigaction(signal, &action, &previous);
        previous_.emplace_back(signal, previous);
    }
}

StateRequests::~StateRequests()
{
    for (const auto& [signal, action] : previous_)
        ::sigaction(signal, &action, nullptr);
}

bool StateRequests::take() { return isStateAsked.exchange(false); }
