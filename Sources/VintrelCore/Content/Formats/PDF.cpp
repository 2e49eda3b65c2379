#include "VintrelCore/Content/Coverage.h"
#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/PDFLexer.h"
#include "VintrelCore/Content/Formats/PDFPlaces.h"
#include "VintrelCore/Content/Formats/PDFStream.h"
#include "VintrelCore/Content/Formats/PDFText.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <optional>
#include <string>

// ISO 32000-1 (PDF 1.7), File Structure: objects one after the other, tables of their places, and
// end marks, of which every update of a document adds one.

namespace Content::Formats {

namespace {

constexpr std::string_view header = "%PDF-";
constexpr std::string_view endMark = "%EOF"; // of the comment, behind its first sign
constexpr std::size_t maxDictionary = 65'536;
constexpr std::uint64_t tableEntrySize = 20;

bool isKeywordOfObjects(std::string_view word)
{
    return word == "true" || word == "false" || word == "null" || word == "R";
}

bool isDecimal(std::string_view word)
{
    return word.find_first_not_of("0123456789+-.") == std::string_view::npos;
}

class PDFChecker final : public Walker<PDFChecker> {
public:
    bool step(FileBytes& file)
    {
        if (position() == 0)
            return readHeader(file);
        switch (part_) {
        case Part::keyword:
            return beginStream(file);
        case Part::stream:
            return readStream(file);
        case Part::table:
            return readTable(file);
        case Part::end:
            return readEnd(file);
        default:
            return readWords(file);
        }
    }

private:
    enum class Part : std::uint8_t { outside, object, keyword, stream, table, trailer, start, end };

    bool readHeader(FileBytes& file)
    {
        if (file.size() < header.size())
            return false;
        if (!isAt(file, 0, header)) {
            breakAt(header.size() - 1);
            return true;
        }
        lexer_.take('%');
        moveTo(header.size());
        return true;
    }

    bool readWords(FileBytes& file)
    {
        const auto bytes = file.stretch(position(), readSize);
        const auto part = part_;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            const auto place = position() + i;
            const auto event = lexer_.take(bytes.data()[i]);
            const bool isSound = event != PDFLexer::Event::wrong
                && (event != PDFLexer::Event::word || takeWord(place));
            if (!isSound) {
                breakAt(place);
                return true;
            }
            if (part_ == Part::start && lexer_.isComment(endMark)) {
                part_ = Part::end;
                moveTo(place + 1);
                return true;
            }
            if (part_ != part) {
                // The line end behind "stream" is part of what follows.
                moveTo(place + (part_ == Part::keyword ? 0 : 1));
                return true;
            }
        }
        moveTo(position() + bytes.size());
        return !bytes.empty();
    }

    /// A word that ended in front of `place`. False when it cannot stand there.
    bool takeWord(std::uint64_t place)
    {
        const auto word = lexer_.word();
        auto digits = word;
        const auto number = takePDFNumber(digits);
        if (number && digits.empty()) {
            takeNumber(*number, place - word.size());
            return true;
        }
        if (part_ == Part::object || part_ == Part::trailer)
            return takeWordInside(word);
        if (word == "obj" && numbers_ >= 2) {
            places_.addMet(olderNumber_, number_, olderPlace_);
            // Before anything of its own the first objects of every document of a program lie
            // alike.
            if (hasVerified_)
                coverage_.verify(olderPlace_, place);
            objectStart_ = olderPlace_;
            return enter(Part::object);
        }
        if (word == "xref") {
            coverage_.verify(place - word.size(), place);
            lexer_.reset();
            return enter(Part::table);
        }
        return word == "startxref" && enter(Part::start);
    }

    void takeNumber(std::uint64_t number, std::uint64_t place)
    {
        olderNumber_ = number_;
        olderPlace_ = numberPlace_;
        number_ = number;
        numberPlace_ = place;
        ++numbers_;
    }

    bool takeWordInside(std::string_view word)
    {
        if (part_ == Part::object && word == "endobj")
            return enter(Part::outside);
        if (part_ == Part::object && word == "stream")
            return enter(Part::keyword);
        if (part_ == Part::trailer && word == "startxref")
            return enter(Part::start);
        return isKeywordOfObjects(word) || isDecimal(word);
    }

    bool enter(Part part)
    {
        part_ = part;
        numbers_ = 0;
        return true;
    }

    bool beginStream(FileBytes& file)
    {
        const auto place = position();
        const auto lineEnd = bytesAt(file, place, 4);
        if (lineEnd.size() < 4)
            return false;
        dictionary_ = textAt(file, objectStart_,
            static_cast<std::size_t>(std::min<std::uint64_t>(maxDictionary, place - objectStart_)));
        lexer_.reset();
        const auto setup = PDFStreamSetup::from(ByteView(std::span(
            reinterpret_cast<const std::uint8_t*>(dictionary_.data()), dictionary_.size())));
        holdsPlaces_ = setup.holdsPlaces;
        const auto start = place + (ByteView(lineEnd).matches("\r\n", 0) ? 2 : 1);
        stream_.emplace(opaqueSafe(file, setup, start), start);
        moveTo(start);
        setPacked(setup.coding == PDFStreamSetup::Coding::flate);
        part_ = Part::stream;
        return true;
    }

    static std::string textAt(FileBytes& file, std::uint64_t place, std::size_t count)
    {
        const auto bytes = bytesAt(file, place, count);
        return { bytes.begin(), bytes.end() };
    }

    bool readStream(FileBytes& file)
    {
        const auto result = stream_->advance(file);
        moveTo(std::max(position(), stream_->position()));
        if (result == PDFStream::Result::wrong)
            breakAt(stream_->position());
        if (result != PDFStream::Result::whole)
            return result == PDFStream::Result::wrong;
        if (stream_->verifiedEnd() > stream_->start()) {
            coverage_.verify(stream_->start(), stream_->verifiedEnd());
            hasVerified_ = true;
        }
        vouchUpTo(stream_->position());
        if (holdsPlaces_)
            places_.addTold(dictionary_, stream_->places());
        stream_.reset();
        setPacked(false);
        dictionary_.clear();
        part_ = Part::object;
        return true;
    }

    /// The lines of a table; "trailer" ends it.
    bool readTable(FileBytes& file)
    {
        constexpr std::size_t maxLine = 64;
        if (entriesLeft_ > 0)
            return readEntry(file);
        const auto text = textAt(file, position(), maxLine);
        if (text.size() < maxLine && !file.isWhole())
            return false;
        auto rest = skipPDFSpace(text);
        if (rest.starts_with("trailer")) {
            if (firstWrongPlace_) {
                breakAt(*firstWrongPlace_);
                return true;
            }
            vouchUpTo(position());
            rest.remove_prefix(std::string_view("trailer").size());
            moveTo(position() + text.size() - rest.size());
            return enter(Part::trailer);
        }
        const auto first = takePDFNumber(rest);
        const auto count = takePDFNumber(rest);
        rest = skipPDFSpace(rest);
        if (!first || !count || (*count > 0 && rest.empty())) {
            breakAt(position() + text.size() - rest.size());
            return true;
        }
        entryNumber_ = *first;
        entriesLeft_ = *count;
        moveTo(position() + text.size() - rest.size());
        return true;
    }

    bool readEntry(FileBytes& file)
    {
        const auto text = textAt(file, position(), tableEntrySize);
        if (text.size() < tableEntrySize)
            return false;
        std::string_view rest = text;
        const auto place = takePDFNumber(rest);
        const auto generation = takePDFNumber(rest);
        rest = skipPDFSpace(rest);
        if (!place || !generation || (!rest.starts_with("n") && !rest.starts_with("f"))) {
            breakAt(position() + tableEntrySize - 1);
            return true;
        }
        if (rest.starts_with("n") && *place > 0) {
            places_.addTold(entryNumber_, *generation, *place);
            if (*place < position() && !isPDFObjectAt(file, entryNumber_, *place))
                firstWrongPlace_ = std::min(firstWrongPlace_.value_or(*place), *place);
        }
        ++entryNumber_;
        --entriesLeft_;
        coverage_.verify(position(), position() + tableEntrySize);
        moveTo(position() + tableEntrySize);
        return true;
    }

    /// Behind an end mark: an update may follow, and in a linearised document most of it does.
    bool readEnd(FileBytes& file)
    {
        constexpr std::size_t lookAhead = 128;
        const auto text = textAt(file, position(), lookAhead);
        if (text.size() < lookAhead && !file.isWhole())
            return false;
        if (!isStartTold(file)) {
            breakAt(position());
            return true;
        }
        coverage_.verify(position() - endMark.size(), position());
        vouchUpTo(position());
        lexer_.reset();
        if (beginsUpdate(text))
            return enter(Part::outside);
        const bool hasTwoSigns = text.starts_with("\r\n");
        const bool hasLineEnd = hasTwoSigns || text.starts_with("\n") || text.starts_with("\r");
        const auto length = position() + (hasTwoSigns ? 2u : 0u) + (hasLineEnd && !hasTwoSigns);
        if (length < linearisedLength(file))
            breakAt(position() + text.size());
        else
            endAt(length, isProved(length) ? Proof::decoded : Proof::chain);
        return true;
    }

    /// Whether an object comes next, behind a comment perhaps.
    static bool beginsUpdate(std::string_view text)
    {
        text = skipPDFSpace(text);
        if (text.starts_with('%') && !text.starts_with(header))
            text.remove_prefix(std::min(text.find_first_of("\r\n"), text.size()));
        return takePDFNumber(text) && takePDFNumber(text) && skipPDFSpace(text).starts_with("obj");
    }

    bool isProved(std::uint64_t length) const
    {
        return places_.agree() && coverage_.isCompleteAt(length);
    }

    /// Whether a table or its stream lies where "startxref" says. The first one of a linearised
    /// document says 0.
    bool isStartTold(FileBytes& file) const
    {
        if (numbers_ == 0 || number_ == 0 || number_ >= position())
            return numbers_ > 0 && number_ == 0;
        constexpr std::size_t maxLength = 40;
        const auto text = textAt(file, number_, maxLength);
        auto rest = skipPDFSpace(text);
        return rest.starts_with("xref")
            || (takePDFNumber(rest) && takePDFNumber(rest)
                && skipPDFSpace(rest).starts_with("obj"));
    }

    /// What the document says of its length at its beginning; 0 when it does not.
    static std::uint64_t linearisedLength(FileBytes& file)
    {
        constexpr std::size_t firstObject = 1024;
        const auto text = textAt(file, 0, firstObject);
        const auto dictionary
            = std::string_view(text).substr(std::min(text.find("<<"), text.size()));
        if (pdfValue(dictionary, "/Linearized").empty())
            return 0;
        auto value = pdfValue(dictionary, "/L");
        return takePDFNumber(value).value_or(0);
    }

    /// In an encrypted document no stream begins as its coding does; then only lengths can be
    /// followed.
    PDFStreamSetup opaqueSafe(FileBytes& file, PDFStreamSetup setup, std::uint64_t start)
    {
        using Coding = PDFStreamSetup::Coding;
        if (setup.coding == Coding::flate && !isPlain_) {
            constexpr std::uint16_t zlibModulus = 31;
            const auto head = load<BE16>(file, start);
            const bool isZlib = head && *head % zlibModulus == 0 && (*head >> 8 & 0xF) == 8;
            isPlain_ = isZlib || !head;
            isOpaque_ |= !isPlain_;
        }
        if (isOpaque_)
            setup.coding = Coding::other;
        return setup;
    }

    Part part_ = Part::outside;
    PDFLexer lexer_;
    std::uint64_t number_ = 0, numberPlace_ = 0; ///< the last one
    std::uint64_t olderNumber_ = 0, olderPlace_ = 0;
    int numbers_ = 0; ///< since the part began
    std::uint64_t objectStart_ = 0;
    std::string dictionary_; ///< of the stream that is being followed
    bool holdsPlaces_ = false;
    std::optional<PDFStream> stream_;
    bool isPlain_ = false, isOpaque_ = false;
    std::uint64_t entryNumber_ = 0, entriesLeft_ = 0;
    std::optional<std::uint64_t> firstWrongPlace_;
    PDFPlaces places_;
    Coverage coverage_;
    bool hasVerified_ = false; ///< whether a checksum was right by now
};

} // namespace

std::unique_ptr<Checker> pdf() { return std::make_unique<PDFChecker>(); }

} // namespace Content::Formats
