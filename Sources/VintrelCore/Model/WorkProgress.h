#pragma once

#include <CVintrel/Mutex.h>

#include <atomic>
#include <functional>
#include <string>

/// The thread that works reports here and asks whether it should stop; any thread, and a signal
/// handler, may cancel.
class WorkProgress {
public:
    /// `fraction` is 0 when unknown and at most 1; the message is Danish and ends in " …".
    using Handler = std::function<void(double fraction, const std::string& message)>;

    WorkProgress() = default;
    explicit WorkProgress(Handler handler)
        : handler_(std::move(handler))
    {
    }

    void report(double fraction, const std::string& message) const;
    void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }

private:
    static_assert(std::atomic<bool>::is_always_lock_free, "cancel() is called by signal handlers");
    std::atomic<bool> cancelled_ = false;
    mutable CVintrel::Mutex lock_; ///< one call of the handler at a time
    Handler handler_;
};

/// Whether work that may have been given no progress object should stop.
inline bool isCancelled(const WorkProgress* progress)
{
    return progress != nullptr && progress->isCancelled();
}

/// Reports for work that may have been given no progress object.
inline void report(const WorkProgress* progress, double fraction, const std::string& message)
{
    if (progress != nullptr)
        progress->report(fraction, message);
}
