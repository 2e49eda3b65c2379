#include "VintrelCore/Carving/Formats/MailHeader.h"

#include "VintrelCore/Foundation/Text.h"

#include <algorithm>

namespace Formats {

namespace {

constexpr int maxLines = 4096;
constexpr std::size_t maxContentType = 4096;

/// The name of a field in lower case; empty when the line is none.
std::string fieldName(std::string_view line)
{
    constexpr std::size_t maxName = 76;
    const auto colon = line.find(':');
    if (colon == 0 || colon > maxName)
        return {};
    const auto name = line.substr(0, colon);
    const bool isName = std::ranges::all_of(name, [](char c) { return c > 0x20 && c < 0x7F; });
    return isName ? Text::lowerCase(name) : std::string();
}

/// The parameter "boundary" of a Content-Type field; empty without one.
std::string boundaryOf(std::string_view contentType)
{
    constexpr std::string_view name = "boundary=";
    const auto lower = Text::lowerCase(contentType);
    const auto at = lower.find(name);
    if (at == std::string::npos || lower.find("multipart/") == std::string::npos)
        return {};
    auto value = contentType.substr(at + name.size());
    if (value.starts_with('"')) {
        value.remove_prefix(1);
        return std::string(value.substr(0, value.find('"')));
    }
    return std::string(value.substr(0, value.find_first_of("; \t")));
}

} // namespace

bool MailHeader::mayBeginWith(ByteView text)
{
    // What the names of fields begin with. Any name would do, but then so would the rest of one in
    // each sector of a mailbox.
    constexpr std::string_view beginnings[]
        = { "accept-", "arc-", "authentication-", "auto", "bcc", "bimi-", "cc", "comments",
              "content-", "date", "deliver", "disposition-", "dkim-", "domainkey-", "envelope-",
              "errors-", "fcc", "feedback-", "from", "importance", "in-reply-to", "keywords",
              "list-", "mail", "message-id", "mime-version", "newsgroups", "organi", "path",
              "precedence", "priority", "received", "references", "reply-to", "resent-", "return-",
              "sender", "sensitivity", "status", "subject", "thread-", "to", "user-agent", "x-" };
    constexpr std::string_view behindColon = " \t\r\n";
    const auto isOfName
        = [](std::uint8_t byte) { return (byte | 0x20U) - 'a' < 26 || byte == '-'; };
    const auto bytes = text.span();
    const auto colon = std::ranges::find_if_not(bytes, isOfName);
    if (bytes.end() - colon < 2 || *colon != ':'
        || behindColon.find(static_cast<char>(colon[1])) == std::string_view::npos)
        return false;
    const auto name = Text::lowerCase(std::string(bytes.begin(), colon));
    return std::ranges::any_of(
        beginnings, [&](std::string_view beginning) { return name.starts_with(beginning); });
}

std::optional<MailHeader> MailHeader::from(TextLines& lines)
{
    constexpr std::string_view usual[]
        = { "date", "to", "subject", "message-id", "received", "return-path", "mime-version" };
    constexpr int minUsual = 2;
    constexpr int maxLinesBefore = 256; // signatures of servers stand in front
    bool hasSender = false;
    int usualFields = 0;
    std::string contentType;
    bool isInContentType = false;
    for (int count = 0; count < maxLines; ++count) {
        const auto line = lines.next();
        if (!line || !line->isEnded || (usualFields == 0 && count > maxLinesBefore))
            break;
        if (line->text.empty()) {
            if (!hasSender || usualFields < minUsual)
                break;
            return MailHeader { boundaryOf(contentType), line->end };
        }
        const bool isContinued = line->text.front() == ' ' || line->text.front() == '\t';
        if (!isContinued) {
            const auto name = fieldName(line->text);
            if (name.empty())
                break;
            hasSender |= name == "from";
            usualFields += std::ranges::count(usual, name) > 0 ? 1 : 0;
            isInContentType = name == "content-type";
        }
        if (isInContentType && contentType.size() < maxContentType)
            contentType += line->text;
    }
    return std::nullopt;
}

} // namespace Formats
