#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/TIFFDirectory.h"
#include "VintrelCore/Content/Formats/TIFFStripCheck.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <array>
#include <set>

// "TIFF Revision 6.0", Image File Header and Image File Directory. The directories name every strip
// of every picture; strips that are packed show whether they are their picture's.

namespace Content::Formats {

namespace {

constexpr std::size_t maxDirectories = 256;
constexpr std::size_t maxStrips = 65'536;
constexpr std::uint64_t headerSize = 8;

class TIFFChecker final : public Walker<TIFFChecker> {
public:
    bool step(FileBytes& file)
    {
        if (position() == 0)
            return readHeader(file);
        if (!directories_.empty() && readDirectory(file))
            return true;
        if (finding().isBroken())
            return true;
        if (isInStrip_ || !strips_.empty())
            return readStrip(file);
        return directories_.empty() && readEnd(file);
    }

private:
    bool readHeader(FileBytes& file)
    {
        // Some cameras have numbers of their own.
        constexpr std::array<std::uint16_t, 4> magics { 42, 0x4F52, 0x5352, 0x0055 };
        constexpr std::uint16_t wide = 43; // BigTIFF: nothing here follows it
        const auto bytes = bytesAt(file, 0, headerSize);
        if (bytes.size() < headerSize)
            return false;
        const ByteView header(bytes);
        const bool isBigEndian = header.matches("MM", 0);
        reader_ = TIFFReader(isBigEndian);
        const auto magic = reader_.u16(header, 2);
        if (magic == wide)
            return false;
        if ((!isBigEndian && !header.matches("II", 0))
            || std::ranges::find(magics, magic) == magics.end()
            || reader_.u32(header, 4) < headerSize) {
            breakAt(headerSize - 1);
            return true;
        }
        addDirectory(reader_.u32(header, 4));
        end_ = headerSize;
        moveTo(headerSize);
        return true;
    }

    void addDirectory(std::uint64_t place)
    {
        if (known_.size() < maxDirectories && known_.insert(place).second)
            directories_.insert(place);
    }

    /// The first one of those that are known to come.
    bool readDirectory(FileBytes& file)
    {
        const auto place = *directories_.begin();
        const auto directory = reader_.directory(file, place);
        if (!directory)
            return false;
        directories_.erase(place);
        if (!directory->isSound) {
            breakAt(std::max(directory->end, position()));
            return true;
        }
        moveTo(std::max(position(), directory->end));
        vouchUpTo(place);
        end_ = std::max(end_, directory->end);
        for (const auto other : directory->others)
            addDirectory(other);
        for (const auto& strip : directory->strips)
            if (strip.range.start < strip.range.end && strips_.size() < maxStrips)
                strips_.push_back(strip);
        // The first one to come stands last.
        std::ranges::sort(strips_, std::ranges::greater(),
            [](const TIFFStrip& strip) { return strip.range.start; });
        return true;
    }

    bool readStrip(FileBytes& file)
    {
        if (!isInStrip_) {
            stripEnd_ = strips_.back().range.end;
            end_ = std::max(end_, stripEnd_);
            check_.begin(strips_.back());
            strips_.pop_back();
            isInStrip_ = true;
        }
        const auto before = check_.position();
        const auto result = check_.advance(file);
        moveTo(std::max(position(), check_.position()));
        setRoughness(check_.steps().last(), check_.steps().usual());
        if (result == TIFFStripCheck::Result::wrong) {
            breakAt(check_.position());
            return true;
        }
        if (result == TIFFStripCheck::Result::waits)
            return check_.position() > before;
        isInStrip_ = false;
        if (check_.isDecoded())
            vouchUpTo(stripEnd_);
        return true;
    }

    bool readEnd(FileBytes& file)
    {
        if (file.size() < end_)
            return false;
        endAt(end_, Proof::chain);
        return true;
    }

    TIFFReader reader_ { false };
    std::set<std::uint64_t> directories_, known_; ///< their places: still to come; all
    std::vector<TIFFStrip> strips_;               ///< still to come, the last one first
    bool isInStrip_ = false;
    std::uint64_t stripEnd_ = 0;
    TIFFStripCheck check_;
    std::uint64_t end_ = 0; ///< of everything that was named
};

} // namespace

std::unique_ptr<Checker> tiff() { return std::make_unique<TIFFChecker>(); }

} // namespace Content::Formats
