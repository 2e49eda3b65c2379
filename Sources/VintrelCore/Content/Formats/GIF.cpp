#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/LZWCheck.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"

#include <cstddef>
#include <optional>

// CompuServe "Graphics Interchange Format, Version 89a". The codes of a picture end with an end
// code, exactly when all pixels came out; foreign bytes soon hold a code that does not exist yet.
// No proof by decoding: in two pictures of one program and size the codes lie at the same bits, so
// that the end of one fits behind the beginning of the other.

namespace Content::Formats {

namespace {

constexpr std::uint8_t hasTable = 0x80;
constexpr std::uint8_t tableBits = 0x07;
constexpr std::uint8_t imageMark = 0x2C, extensionMark = 0x21, trailer = 0x3B;

struct Screen {
    std::array<std::uint8_t, 6> version;    //  0  "GIF87a" or "GIF89a"
    LE16 width, height;                     //  6, 8
    std::uint8_t flags, background, aspect; // 10, 11, 12
};
static_assert(sizeof(Screen) == 13);

struct Image {
    std::uint8_t mark;  // 0
    LE16 left, top;     // 1, 3
    LE16 width, height; // 5, 7
    std::uint8_t flags; // 9
};
static_assert(sizeof(Image) == 10);

/// Of the table of colours that flags announce, in bytes.
std::uint64_t tableSize(std::uint8_t flags)
{
    return (flags & hasTable) == 0 ? 0 : std::uint64_t { 6 } << (flags & tableBits);
}

class GIFChecker final : public Walker<GIFChecker> {
public:
    bool step(FileBytes& file)
    {
        if (position() == 0)
            return readScreen(file);
        return isInBlocks_ ? readBlock(file) : readMark(file);
    }

private:
    bool readScreen(FileBytes& file)
    {
        const auto screen = load<Screen>(file, 0);
        if (!screen)
            return false;
        const ByteView version(screen->version);
        if (!version.matches("GIF87a", 0) && !version.matches("GIF89a", 0)) {
            breakAt(screen->version.size() - 1);
            return true;
        }
        const auto end = sizeof(Screen) + tableSize(screen->flags);
        if (file.size() < end)
            return false;
        moveTo(end);
        return true;
    }

    bool readMark(FileBytes& file)
    {
        const auto mark = load<std::uint8_t>(file, position());
        if (!mark)
            return false;
        if (*mark == imageMark)
            return readImage(file);
        if (*mark == extensionMark)
            return readExtension(file);
        if (*mark != trailer || images_ == 0)
            breakAt(position());
        else
            endAt(position() + 1, Proof::chain);
        return true;
    }

    bool readExtension(FileBytes& file)
    {
        constexpr std::uint64_t headerSize = 2; // the mark, and what kind it is
        if (file.size() < position() + headerSize)
            return false;
        codes_.reset();
        isInBlocks_ = true;
        moveTo(position() + headerSize);
        return true;
    }

    bool readImage(FileBytes& file)
    {
        const auto image = load<Image>(file, position());
        const auto codeBits = image
            ? load<std::uint8_t>(file, position() + sizeof(Image) + tableSize(image->flags))
            : std::nullopt;
        if (!codeBits)
            return false;
        pixels_ = std::uint64_t { image->width } * image->height;
        constexpr std::uint8_t maxCodeBits = 8;
        if (*codeBits < 2 || *codeBits > maxCodeBits || pixels_ == 0) {
            breakAt(position() + sizeof(Image) + tableSize(image->flags));
            return true;
        }
        moveTo(position() + sizeof(Image) + tableSize(image->flags) + 1);
        codes_.emplace(LZWCheck::Kind::gif, *codeBits);
        state_ = LZWCheck::State::open;
        isInBlocks_ = true;
        return true;
    }

    /// One block: its length and as many bytes; one without any is the last.
    bool readBlock(FileBytes& file)
    {
        const auto length = load<std::uint8_t>(file, position());
        if (!length || file.size() < position() + 1 + *length)
            return false;
        const auto bytes = bytesAt(file, position() + 1, *length);
        for (std::size_t i = 0; i < bytes.size() && codes_; ++i) {
            if (state_ == LZWCheck::State::open)
                state_ = codes_->add(bytes[i]);
            if (state_ == LZWCheck::State::wrong || codes_->produced() > pixels_) {
                breakAt(position() + 1 + i);
                return true;
            }
        }
        moveTo(position() + 1 + *length);
        if (*length == 0) {
            isInBlocks_ = false;
            if (codes_)
                endImage();
        }
        return true;
    }

    void endImage()
    {
        if (state_ != LZWCheck::State::ended || codes_->produced() != pixels_) {
            breakAt(position() - 1);
            return;
        }
        vouchUpTo(position());
        codes_.reset();
        ++images_;
    }

    bool isInBlocks_ = false;
    std::optional<LZWCheck> codes_; ///< of a picture; none in an extension
    LZWCheck::State state_ = LZWCheck::State::open;
    std::uint64_t pixels_ = 0;
    std::uint64_t images_ = 0;
};

} // namespace

std::unique_ptr<Checker> gif() { return std::make_unique<GIFChecker>(); }

} // namespace Content::Formats
