#pragma once

#include "VintrelCore/Model/WorkProgress.h"

#include <csignal>
#include <optional>
#include <utility>
#include <vector>

/// While it lives, the first SIGINT, SIGTERM or SIGHUP cancels the work instead of ending the
/// program, so that what is finished stays and is reported. The next one ends the program at once.
/// A signal that is ignored stays so: whoever started the program in the background wants it that
/// way. There is at most one of these at a time.
class SignalCancellation {
public:
    explicit SignalCancellation(WorkProgress& work);
    SignalCancellation(const SignalCancellation&) = delete;
    SignalCancellation& operator=(const SignalCancellation&) = delete;
    ~SignalCancellation();

    /// The signal that cancelled the work; none when none did.
    static std::optional<int> received();

private:
    struct sigaction previousInterrupt_ { };
    struct sigaction previousTerminate_ { };
    struct sigaction previousHangUp_ { };
};

/// While it lives, the signals with which a user asks how far the work has come do not end the
/// program. There is at most one of these at a time.
class StateRequests {
public:
    StateRequests();
    StateRequests(const StateRequests&) = delete;
    StateRequests& operator=(const StateRequests&) = delete;
    ~StateRequests();

    /// Whether the user has asked since the last call.
    static bool take();

private:
    std::vector<std::pair<int, struct sigaction>> previous_;
};
