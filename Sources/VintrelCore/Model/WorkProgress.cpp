#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

void WorkProgress::report(double fraction, const std::string& message) const
{
    if (!handler_)
        return;
    const CVintrel::MutexLock guard(lock_);
    handler_(std::min(fraction, 1.0), message);
}
