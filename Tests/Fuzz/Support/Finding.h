#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// Ends the run with what was broken, so that the fuzzer keeps the input. Nothing when `finding` is
/// empty.
inline void report(const std::string& finding)
{
    if (finding.empty())
        return;
    std::fprintf(stderr, "broken: %s\n", finding.c_str());
    std::abort();
}
inline void expect(bool holds, const char* rule) { report(holds ? "" : rule); }
