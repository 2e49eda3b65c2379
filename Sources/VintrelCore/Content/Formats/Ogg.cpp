#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"
#include "VintrelCore/Foundation/OggPage.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

// RFC 3533, The Ogg page format: every page has a checksum over all of it, and a number that rises
// by one through its stream.

namespace Content::Formats {

namespace {

using namespace OggPage;

constexpr std::size_t maxStreams = 64;

class OggChecker final : public Walker<OggChecker> {
public:
    bool step(FileBytes& file)
    {
        const bool mayEnd = position() > 0 && streams_.empty();
        const auto header = load<Header>(file, position());
        if (!header)
            return file.isWhole() && endWithFile(file, mayEnd);
        if (mayEnd && !isChained(*header)) {
            endAt(position(), Proof::checksum);
            return true;
        }
        if (!ByteView(header->magic).matches("OggS", 0) || header->version != 0
            || !isExpected(*header)) {
            breakAt(position() + sizeof(Header) - 1);
            return true;
        }
        return readPage(file, *header);
    }

private:
    struct Stream {
        std::uint32_t number;
        std::uint32_t nextSequence;
    };

    /// Whether another stream begins behind the end of all. One that begins with a sector is
    /// another file's.
    bool isChained(const Header& header) const
    {
        constexpr std::uint64_t sectorSize = 512;
        return position() % sectorSize != 0 && ByteView(header.magic).matches("OggS", 0)
            && (header.flags & beginsStream) != 0;
    }

    bool isExpected(const Header& header) const
    {
        const auto stream
            = std::ranges::find(streams_, std::uint32_t { header.stream }, &Stream::number);
        if ((header.flags & beginsStream) != 0)
            return stream == streams_.end() && streams_.size() < maxStreams;
        return stream != streams_.end() && stream->nextSequence == header.sequence;
    }

    bool readPage(FileBytes& file, const Header& header)
    {
        const auto lengths = bytesAt(file, position() + sizeof(Header), header.segments);
        std::size_t size = sizeof(Header) + header.segments;
        for (const auto length : lengths)
            size += length;
        const auto page = bytesAt(file, position(), size);
        if (lengths.size() < header.segments || page.size() < size)
            return false;
        if (checksumOf(page) != header.checksum) {
            breakAt(position() + size - 1);
            return true;
        }
        moveTo(position() + size);
        vouchUpTo(position());
        count(header);
        return true;
    }

    void count(const Header& header)
    {
        std::erase_if(
            streams_, [&](const Stream& stream) { return stream.number == header.stream; });
        if ((header.flags & endsStream) == 0)
            streams_.push_back({ header.stream, header.sequence + 1 });
    }

    /// Where no end was marked the last page merely is the last.
    bool endWithFile(FileBytes& file, bool isEndMarked)
    {
        if (position() == 0 || (!isEndMarked && position() != file.size()))
            return false;
        endAt(position(), isEndMarked ? Proof::checksum : Proof::none);
        return true;
    }

    std::vector<Stream> streams_; ///< that have not ended
};

} // namespace

std::unique_ptr<Checker> ogg() { return std::make_unique<OggChecker>(); }

} // namespace Content::Formats
