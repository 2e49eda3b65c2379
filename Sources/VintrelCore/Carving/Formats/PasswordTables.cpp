#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

#include <algorithm>

// RFC 4180 (CSV), of which only what password managers and browsers export is carved: their first
// lines are always the same, and all lines have as many fields as that.

namespace Formats {

namespace {

constexpr std::string_view firstLines[] = {
    "name,url,username,password",                 // Chrome and its relatives
    R"("url","username","password","httpRealm")", // Firefox
    "Title,URL,Username,Password,",               // Safari
    "folder,favorite,type,name,notes,fields,",    // Bitwarden
    "collections,type,name,notes,fields,",        // Bitwarden of an organisation
    "Title,Url,Username,Password,",               // 1Password
    "url,username,password,",                     // LastPass
    R"("Group","Title","Username","Password",)",  // KeePassXC
    R"("Account","Login Name","Password",)",      // KeePass
};

constexpr std::uint64_t limit = 67'108'864;
constexpr std::uint64_t maxRecord = 1'048'576;
constexpr std::size_t workPerByte = 4;

/// Follows records, which are lines unless quotes hold line feeds, up to the last one that has as
/// many fields as the first.
class Records {
public:
    /// False where the table ends in front of this byte.
    bool take(std::uint8_t byte)
    {
        if (!isTextByte(byte) || (isBehindQuotes() && !mayStandBehindQuotes(byte))) {
            if (!isQuoted_ && position_ > end_ && isLikeFirst())
                endRecord(); // no line feed need stand behind the last one
            return false;
        }
        ++position_;
        wasQuote_ = byte == '"';
        isQuoted_ ^= wasQuote_;
        if (isQuoted_)
            return position_ - end_ < maxRecord;
        fields_ += byte == ',' ? 1 : 0;
        if (byte != '\n')
            return position_ - end_ < maxRecord;
        const bool isLike = isLikeFirst();
        if (isLike)
            endRecord();
        return isLike;
    }

    std::uint64_t position() const { return position_; }
    /// Where the last record ends; none without any behind the first.
    std::optional<std::uint64_t> end() const
    {
        return count_ > 1 ? std::optional(end_) : std::nullopt;
    }

private:
    static bool mayStandBehindQuotes(std::uint8_t byte)
    {
        return byte == '"' || byte == ',' || byte == '\r' || byte == '\n';
    }
    bool isBehindQuotes() const { return wasQuote_ && !isQuoted_; }
    bool isLikeFirst() const { return count_ == 0 || fields_ == expected_; }
    void endRecord()
    {
        expected_ = fields_;
        fields_ = 1;
        ++count_;
        end_ = position_;
    }

    bool isQuoted_ = false;
    bool wasQuote_ = false; ///< whether the last byte was one
    int fields_ = 1;
    int expected_ = 0; ///< fields
    int count_ = 0;    ///< of records
    std::uint64_t position_ = 0;
    std::uint64_t end_ = 0;
};

std::optional<std::uint64_t> behindRecords(RandomReader& file)
{
    Records records;
    while (records.position() < limit && !file.isExhausted()) {
        const auto bytes = file.stretch(records.position()).span();
        file.addWork(bytes.size() * workPerByte);
        if (bytes.empty()
            || !std::ranges::all_of(bytes, [&](std::uint8_t byte) { return records.take(byte); }))
            break;
    }
    return records.end();
}

} // namespace

Found passwordTable(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (std::ranges::none_of(
            firstLines, [&](std::string_view line) { return file.matches(0, line); }))
        return std::nullopt;
    const auto end = behindRecords(file);
    return end ? Found(candidate.found(*end, "csv", !beginsAgain(file, *end))) : std::nullopt;
}

} // namespace Formats
