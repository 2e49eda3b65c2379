#pragma once

#include "VintrelCore/Carving/Formats/TextLines.h"

#include <optional>
#include <string>

namespace Formats {

/// What the header of a mail says, as far as it decides where the mail ends (RFC 5322, RFC 2046).
struct MailHeader {
    std::string boundary; ///< between its parts; empty for a mail of one part
    std::uint64_t end;    ///< behind the empty line that ends the header

    /// The header whose first line comes next; none when these lines are no mail's header. A mail
    /// says who sent it, and at least two of the other things that mails say.
    static std::optional<MailHeader> from(TextLines& lines);
    /// Whether the text begins with the name of a field that mails have, and a colon.
    static bool mayBeginWith(ByteView text);
};

} // namespace Formats
