#include "VintrelCore/Foundation/CallingUser.h"

#include "VintrelCore/Foundation/Text.h"

#include <cstdlib>
#include <optional>
#include <unistd.h>

namespace {

std::optional<unsigned> numberIn(const char* variable)
{
    const char* const value = std::getenv(variable);
    return value != nullptr ? Text::number<unsigned>(value) : std::nullopt;
}

} // namespace

namespace CallingUser {

void own(int descriptor)
{
    if (::geteuid() != 0)
        return; // whoever is not root can give nothing away
    const auto user = numberIn("SUDO_UID");
    const auto group = numberIn("SUDO_GID");
    if (user && group)
        static_cast<void>(::fchown(descriptor, *user, *group) == 0);
}

} // namespace CallingUser
