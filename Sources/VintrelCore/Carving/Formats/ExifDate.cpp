#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TIFFLayout.h"
#include "VintrelCore/Foundation/Text.h"

// Exif 2.3 (CIPA DC-008): the tags DateTime and DateTimeOriginal.

namespace Formats {

namespace {

constexpr std::uint16_t exifDirectory = 0x8769;
constexpr std::uint16_t captureTime = 0x9003;
constexpr std::uint16_t changeTime = 0x0132;
constexpr std::int64_t minSize = 17;
constexpr std::string_view timePattern = "dddd:dd:dd dd:dd:dd";

/// "2024:05:17 14:03:22". Cameras that do not know the time write zeros or blanks.
std::optional<Date> parseTime(std::string_view text)
{
    if (text.size() != timePattern.size())
        return std::nullopt;
    for (std::size_t i = 0; i < timePattern.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (timePattern[i] == 'd' ? !isDigit : text[i] != timePattern[i])
            return std::nullopt;
    }
    const auto number = [&](std::size_t at, std::size_t digits) {
        return Text::number<unsigned>(text.substr(at, digits)).value_or(0);
    };
    using namespace std::chrono;
    const year_month_day day { year { static_cast<int>(number(0, 4)) }, month { number(5, 2) },
        std::chrono::day { number(8, 2) } };
    return TimeConversion::fromLocal(
        day, hours { number(11, 2) }, minutes { number(14, 2) }, seconds { number(17, 2) });
}

/// The Exif data, read in its own byte order.
struct Reader {
    ByteView bytes;
    bool isLittle;

    std::uint16_t u16(std::int64_t at) const
    {
        return isLittle ? bytes.u16le(at) : bytes.u16be(at);
    }
    std::uint32_t u32(std::int64_t at) const
    {
        return isLittle ? bytes.u32le(at) : bytes.u32be(at);
    }
    std::optional<TIFFField> field(std::int64_t at) const
    {
        return isLittle ? fieldIn<std::endian::little>(at) : fieldIn<std::endian::big>(at);
    }
    template <std::endian order> std::optional<TIFFField> fieldIn(std::int64_t at) const
    {
        const auto stored = bytes.load<StoredTIFFField<order>>(at);
        return stored ? std::optional<TIFFField>(*stored) : std::nullopt;
    }

    /// The time that a field points to.
    std::optional<Date> time(const TIFFField& field) const
    {
        const auto text
            = bytes.sub(field.valueOffset, static_cast<std::int64_t>(timePattern.size()));
        return parseTime({ reinterpret_cast<const char*>(text.data()), text.size() });
    }

    /// Calls `visit` for the fields of the directory at `start`, as far as they lie inside.
    template <class Visit> void forEachField(std::int64_t start, Visit visit) const
    {
        const int count = u16(start);
        for (int i = 0; i < count; ++i) {
            const auto next = field(start + static_cast<std::int64_t>(tiffCountSize)
                + i * static_cast<std::int64_t>(tiffFieldSize));
            if (!next)
                return;
            visit(*next);
        }
    }
};

} // namespace

std::optional<Date> exifDate(ByteView tiff)
{
    const bool isLittle = tiff.matches("II", 0);
    if (static_cast<std::int64_t>(tiff.size()) < minSize || (!isLittle && !tiff.matches("MM", 0)))
        return std::nullopt;
    const Reader reader { tiff, isLittle };
    std::optional<Date> taken;
    std::optional<Date> changed;
    const auto readCapture = [&](const TIFFField& field) {
        if (field.tag == captureTime && !taken)
            taken = reader.time(field);
    };
    const auto first = reader.u32(offsetof(TIFFHeader<std::endian::big>, firstDirectory));
    reader.forEachField(first, [&](const TIFFField& field) {
        if (field.tag == exifDirectory && !taken)
            reader.forEachField(field.valueOffset, readCapture);
        else if (field.tag == changeTime && !changed)
            changed = reader.time(field);
    });
    return taken ? taken : changed;
}

} // namespace Formats
