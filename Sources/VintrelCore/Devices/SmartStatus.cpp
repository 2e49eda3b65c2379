#include "VintrelCore/Devices/SmartStatus.h"

#include "VintrelCore/Devices/HelperProgram.h"

#include <string_view>

namespace {

using namespace std::chrono_literals;

/// A disk that is dying can take its time to answer.
constexpr HelperProgram::Limits limits { .time = 20s };

constexpr std::string_view verified = "Verified";
constexpr std::string_view failing = "Failing";
constexpr std::string_view notSupported = "Not Supported";

} // namespace

namespace SmartStatus {

std::string ask(const std::string& smartctl, const std::string& disk)
{
    constexpr int failingBit
        = 1 << 3; // of the exit status; other bits tell of errors in the disk's past
    if (smartctl.empty())
        return std::string(notSupported);
    const auto outcome = HelperProgram::run({ smartctl, "-H", disk }, limits);
    if (outcome.error || outcome.status < 0)
        return std::string(notSupported);
    if ((outcome.status & failingBit) != 0)
        return std::string(failing);
    for (const std::string_view healthy :
        { "overall-health self-assessment test result: PASSED", "SMART Health Status: OK" })
        if (outcome.output.find(healthy) != std::string::npos)
            return std::string(verified);
    return std::string(notSupported);
}

} // namespace SmartStatus
