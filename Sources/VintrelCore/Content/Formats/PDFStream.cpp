#include "VintrelCore/Content/Formats/PDFStream.h"

#include "VintrelCore/Content/Formats/PDFText.h"
#include "VintrelCore/Content/Nested.h"
#include "VintrelCore/Content/Reading.h"

#include <algorithm>
#include <array>
#include <string>

namespace Content::Formats {

namespace {

using Compression::Inflater;

constexpr std::string_view keyword = "endstream";
constexpr std::size_t maxLineEnd = 4; // between the data and the keyword
constexpr std::size_t maxPlaces = 4'194'304;

} // namespace

PDFStreamSetup PDFStreamSetup::from(ByteView dictionary)
{
    const std::string text(dictionary.span().begin(), dictionary.span().end());
    PDFStreamSetup setup;
    auto length = pdfValue(text, "/Length");
    setup.length = takePDFNumber(length);
    const bool isReference = takePDFNumber(length) && skipPDFSpace(length).starts_with("R");
    if (isReference)
        setup.length.reset();
    if (setup.length)
        setup.length = std::min(*setup.length, maxLength);
    const auto filter = skipPDFSpace(pdfValue(text, "/Filter"), "[");
    if (filter.starts_with("/FlateDecode") || filter.starts_with("/Fl/")
        || filter.starts_with("/Fl "))
        setup.coding = Coding::flate;
    else if (filter.starts_with("/DCTDecode"))
        setup.coding = Coding::jpeg;
    setup.holdsPlaces = skipPDFSpace(pdfValue(text, "/Type")).starts_with("/XRef");
    return setup;
}

PDFStream::PDFStream(const PDFStreamSetup& setup, std::uint64_t start)
    : setup_(setup)
    , start_(start)
    , position_(start)
    , verifiedEnd_(start)
{
    if (setup.coding == PDFStreamSetup::Coding::flate)
        inflater_.emplace(Inflater::Wrapping::zlib);
    if (setup.coding == PDFStreamSetup::Coding::jpeg)
        picture_ = checkerFor("jpg");
}

PDFStream::PDFStream(const PDFStream& other)
    : setup_(other.setup_)
    , start_(other.start_)
    , position_(other.position_)
    , verifiedEnd_(other.verifiedEnd_)
    , isDataOver_(other.isDataOver_)
    , inflater_(other.inflater_)
    , picture_(other.picture_ ? other.picture_->copy() : nullptr)
    , places_(other.places_)
{
}

PDFStream::Result PDFStream::advance(FileBytes& file)
{
    while (!isDataOver_) {
        const auto result = followData(file);
        if (result != Result::whole)
            return result;
    }
    return finish(file);
}

/// `whole` when it has moved on.
PDFStream::Result PDFStream::followData(FileBytes& file)
{
    if (inflater_)
        return inflate(file);
    if (picture_)
        return followJPEG(file);
    if (!setup_.length)
        return search(file);
    // Nothing shows whether the data are right, only that the keyword stands behind them.
    if (*setup_.length > file.size() - std::min(file.size(), start_))
        return Result::waits;
    position_ = start_ + *setup_.length;
    isDataOver_ = true;
    return Result::whole;
}

PDFStream::Result PDFStream::inflate(FileBytes& file)
{
    const auto left
        = setup_.length ? *setup_.length - (position_ - start_) : std::uint64_t { readSize };
    const auto bytes = file.stretch(
        position_, static_cast<std::size_t>(std::min<std::uint64_t>(left, readSize)));
    std::array<std::uint8_t, readSize> unpacked;
    const auto progress = inflater_->unpack(bytes.span(), unpacked);
    position_ += progress.consumed;
    if (setup_.holdsPlaces && places_.size() < maxPlaces)
        places_.insert(places_.end(), unpacked.begin(),
            unpacked.begin() + static_cast<std::ptrdiff_t>(progress.produced));
    if (progress.state == Inflater::State::damaged)
        return Result::wrong;
    if (progress.state == Inflater::State::ended) {
        isDataOver_ = true;
        verifiedEnd_ = position_;
        const auto end = start_ + setup_.length.value_or(position_ - start_);
        if (end - position_ > maxLineEnd)
            return Result::wrong;
        position_ = end;
        return Result::whole;
    }
    if (progress.consumed > 0 || progress.produced > 0)
        return Result::whole;
    return setup_.length && left == 0 ? Result::wrong : Result::waits;
}

PDFStream::Result PDFStream::followJPEG(FileBytes& file)
{
    const auto end = setup_.length ? start_ + *setup_.length : UINT64_MAX;
    NestedFile nested(file, start_, end);
    picture_->advance(nested);
    const auto& finding = picture_->finding();
    position_ = start_ + finding.brokenAt.value_or(finding.checked);
    if (finding.isBroken())
        return Result::wrong;
    if (!finding.isComplete())
        return Result::waits;
    isDataOver_ = true;
    if (finding.proof >= Proof::decoded)
        verifiedEnd_ = start_ + *finding.length;
    position_ = setup_.length ? end : start_ + *finding.length;
    return file.size() < position_ ? Result::waits : Result::whole;
}

/// Where the length stands elsewhere, the first keyword ends the data.
PDFStream::Result PDFStream::search(FileBytes& file)
{
    const auto bytes = bytesAt(file, position_, readSize);
    const auto found = ByteView(bytes).firstIndex(
        ByteView(std::span(reinterpret_cast<const std::uint8_t*>(keyword.data()), keyword.size())),
        0);
    if (found) {
        position_ += static_cast<std::uint64_t>(*found);
        isDataOver_ = true;
        return Result::whole;
    }
    if (bytes.size() < keyword.size())
        return Result::waits;
    const auto passed = bytes.size() - (keyword.size() - 1);
    position_ += passed;
    return Result::whole;
}

PDFStream::Result PDFStream::finish(FileBytes& file)
{
    const auto bytes = bytesAt(file, position_, maxLineEnd + keyword.size());
    std::size_t at = 0;
    while (at < bytes.size() && at < maxLineEnd && isPDFSpace(bytes[at]))
        ++at;
    if (ByteView(bytes).matches(keyword, static_cast<std::int64_t>(at))) {
        position_ += at + keyword.size();
        return Result::whole;
    }
    if (bytes.size() < at + keyword.size())
        return Result::waits;
    position_ += at + keyword.size() - 1;
    return Result::wrong;
}

} // namespace Content::Formats
