#pragma once

#include <cstdlib>
#include <ctime>

/// The time zone of the process for as long as this lives; afterwards it is the machine's again.
class TimeZone {
public:
    explicit TimeZone(const char* name)
    {
        ::setenv("TZ", name, 1);
        ::tzset(); // which what converts times need not call
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
    ~TimeZone()
    {
        ::unsetenv("TZ");
        ::tzset();
    }
};
