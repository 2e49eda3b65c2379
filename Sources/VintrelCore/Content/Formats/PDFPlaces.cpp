#include "VintrelCore/Content/Formats/PDFPlaces.h"

#include "VintrelCore/Content/Formats/PDFText.h"
#include "VintrelCore/Content/Reading.h"

#include <array>
#include <string>

namespace Content::Formats {

namespace {

constexpr std::size_t maxFieldWidth = 8;
constexpr std::size_t maxColumns = 64; // of a line that a predictor works on

/// Undoes the predictor "Up", which is what writers use for places; empty for others.
Bytes unpredicted(ByteView lines, std::size_t columns)
{
    constexpr std::uint8_t up = 2;
    Bytes plain;
    std::array<std::uint8_t, maxColumns> above {};
    const auto line = columns + 1;
    plain.reserve(lines.size());
    for (std::size_t start = 0; start + line <= lines.size(); start += line) {
        const auto predictor = lines.data()[start];
        if (predictor != 0 && predictor != up)
            return {};
        for (std::size_t i = 0; i < columns; ++i) {
            const auto byte = lines.data()[start + 1 + i];
            above[i] = static_cast<std::uint8_t>(predictor == up ? above[i] + byte : byte);
            plain.push_back(above[i]);
        }
    }
    return plain;
}

/// The ranges of object numbers that the entries are for.
class Numbers {
public:
    explicit Numbers(std::string_view index)
        : index_(skipPDFSpace(index, "["))
    {
        nextRange();
    }
    std::uint64_t next()
    {
        if (left_ == 0)
            nextRange();
        --left_;
        return number_++;
    }

private:
    void nextRange()
    {
        const auto first = takePDFNumber(index_);
        const auto count = takePDFNumber(index_);
        const bool isTold = first && count && *count > 0;
        number_ = isTold ? *first : number_;
        left_ = isTold ? *count : UINT64_MAX;
    }

    std::string_view index_;
    std::uint64_t number_ = 0, left_ = 0;
};

} // namespace

void PDFPlaces::addTold(std::string_view dictionary, ByteView unpacked)
{
    hasTold_ = true;
    auto widths = skipPDFSpace(pdfValue(dictionary, "/W"), "[");
    std::array<std::size_t, 3> width {};
    for (auto& field : width)
        field = static_cast<std::size_t>(takePDFNumber(widths).value_or(0));
    const auto length = width[0] + width[1] + width[2];
    if (length == 0 || width[0] > maxFieldWidth || width[1] > maxFieldWidth
        || width[2] > maxFieldWidth)
        return;
    const bool isPredicted = pdfValue(dictionary, "/DecodeParms").find("/Predictor 1")
        != std::string_view::npos; // 10 to 15
    const Bytes plain = isPredicted ? unpredicted(unpacked, length)
                                    : Bytes(unpacked.span().begin(), unpacked.span().end());
    Numbers numbers(pdfValue(dictionary, "/Index"));
    for (std::size_t entry = 0; entry + length <= plain.size(); entry += length) {
        const auto number = numbers.next();
        auto at = entry;
        const auto take = [&](std::size_t field, std::uint64_t value) {
            for (std::size_t i = 0; i < width[field]; ++i)
                value = (i == 0 ? 0 : value << 8) | plain[at++];
            return value;
        };
        constexpr std::uint64_t inFile = 1;
        const auto kind = take(0, inFile);
        const auto place = take(1, 0);
        const auto generation = take(2, 0);
        if (kind == inFile)
            addTold(number, generation, place);
    }
}

bool isPDFObjectAt(FileBytes& file, std::uint64_t number, std::uint64_t place)
{
    constexpr std::size_t maxLength = 40;
    const auto bytes = bytesAt(file, place, maxLength);
    const std::string text(bytes.begin(), bytes.end());
    std::string_view rest = text;
    return takePDFNumber(rest) == number && takePDFNumber(rest)
        && skipPDFSpace(rest).starts_with("obj");
}

} // namespace Content::Formats
