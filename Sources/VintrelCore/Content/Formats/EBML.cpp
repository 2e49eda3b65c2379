#include "VintrelCore/Content/Coverage.h"
#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"
#include "VintrelCore/Foundation/CRC32.h"

#include <algorithm>
#include <array>
#include <bit>

// RFC 8794, Extensible Binary Meta Language; RFC 9559, Matroska. Elements say their lengths; some
// writers put a checksum in front of what a master element holds.

namespace Content::Formats {

namespace {

enum Id : std::uint32_t {
    ebml = 0x1A45'DFA3,
    segment = 0x1853'8067,
    seekHead = 0x114D'9B74,
    info = 0x1549'A966,
    tracks = 0x1654'AE6B,
    cluster = 0x1F43'B675,
    cues = 0x1C53'BB6B,
    chapters = 0x1043'A770,
    tags = 0x1254'C367,
    attachments = 0x1941'A469,
    voidElement = 0xEC,
    crc32 = 0xBF,
    timestamp = 0xE7,
    simpleBlock = 0xA3,
    blockGroup = 0xA0,
    prevSize = 0xAB,
    positionInSegment = 0xA7,
    encryptedBlock = 0xAF,
    silentTracks = 0x5854,
    cuePoint = 0xBB,
    cueTrackPositions = 0xB7,
    cueClusterPosition = 0xF1,
};

constexpr std::array inSegment { seekHead, info, tracks, cluster, cues, chapters, tags, attachments,
    voidElement, crc32 };
constexpr std::array inCluster { timestamp, simpleBlock, blockGroup, prevSize, positionInSegment,
    encryptedBlock, silentTracks, voidElement, crc32 };
constexpr std::uint64_t maxSize = std::uint64_t { 1 } << 40;
constexpr std::size_t maxHeaderSize = 12;
constexpr int maxCues = 1'000'000;

struct Element {
    std::uint32_t id = 0;
    std::uint64_t headerSize = 0;
    std::uint64_t size = 0; ///< of the data
    bool isSized = true;

    /// None where no element can begin.
    static std::optional<Element> from(ByteView bytes)
    {
        constexpr int maxIdLength = 4;
        const int idLength = std::countl_zero(bytes.u8(0)) + 1;
        const int sizeLength = std::countl_zero(bytes.u8(idLength)) + 1;
        if (idLength > maxIdLength || sizeLength > 8)
            return std::nullopt;
        Element element;
        for (int i = 0; i < idLength; ++i)
            element.id = element.id << 8 | bytes.u8(i);
        for (int i = 0; i < sizeLength; ++i)
            element.size = element.size << 8 | bytes.u8(idLength + i);
        const auto mask = (std::uint64_t { 1 } << 7 * sizeLength) - 1;
        element.size &= mask;
        element.isSized = element.size != mask;
        element.headerSize
            = static_cast<std::uint64_t>(idLength) + static_cast<std::uint64_t>(sizeLength);
        return element;
    }

    template <std::size_t count> bool isOneOf(const std::array<Id, count>& ids) const
    {
        return std::ranges::find(ids, static_cast<Id>(id)) != ids.end();
    }
};

class EBMLChecker final : public Walker<EBMLChecker> {
public:
    bool step(FileBytes& file)
    {
        if (segmentEnd_ > 0 && position() == segmentEnd_)
            return finish();
        if (isInCluster_ && position() == clusterEnd_) {
            isInCluster_ = false;
            return leaveMaster(file);
        }
        const auto bytes = bytesAt(file, position(), maxHeaderSize);
        const auto element = Element::from(bytes);
        if (bytes.size() < maxHeaderSize && !file.isWhole())
            return false;
        if (bytes.empty())
            return endWithFile(file);
        if (!element || (element->isSized && element->size > maxSize))
            return breakHere();
        if (segmentStart_ == 0)
            return readOutside(file, *element);
        if (isInCluster_ && element->isOneOf(inCluster))
            return readInCluster(file, *element);
        // A cluster without a size ends where another element of the segment begins.
        if (isInCluster_ && clusterEnd_ != UINT64_MAX)
            return breakHere();
        isInCluster_ = false;
        return readInSegment(file, *element);
    }

private:
    bool breakHere()
    {
        breakAt(position() + maxHeaderSize - 1);
        return true;
    }

    bool readOutside(FileBytes& file, const Element& element)
    {
        const auto data = position() + element.headerSize;
        if (position() == 0 && element.id == ebml && element.isSized) {
            if (file.size() < data + element.size)
                return false;
            moveTo(data + element.size);
            return true;
        }
        if (position() == 0 || element.id != segment)
            return breakHere();
        coverage_.verify(0, data);
        segmentStart_ = data;
        segmentEnd_ = element.isSized ? data + element.size : UINT64_MAX;
        moveTo(data);
        return true;
    }

    bool readInSegment(FileBytes& file, const Element& element)
    {
        const auto data = position() + element.headerSize;
        const bool fits = !element.isSized || element.size <= segmentEnd_ - data;
        if (!element.isOneOf(inSegment) || !fits || (!element.isSized && element.id != cluster))
            return breakHere();
        if (element.id != voidElement)
            vouchUpTo(position());
        coverage_.verify(position(), data);
        masterStart_ = data;
        masterEnd_ = element.isSized ? data + element.size : UINT64_MAX;
        if (element.id == cluster) {
            isInCluster_ = true;
            clusterEnd_ = masterEnd_;
            moveTo(data);
            return true;
        }
        if (file.size() < masterEnd_)
            return false;
        moveTo(masterEnd_);
        if (element.id == cues && !areCuesTrue(file)) {
            breakAt(masterEnd_);
            return true;
        }
        return element.id == voidElement || leaveMaster(file);
    }

    bool readInCluster(FileBytes& file, const Element& element)
    {
        const auto data = position() + element.headerSize;
        if (!element.isSized || element.size > clusterEnd_ - std::min(clusterEnd_, data))
            return breakHere();
        if (element.id == simpleBlock) {
            constexpr std::size_t blockHeaderSize = 4;
            const auto head = bytesAt(file, data, blockHeaderSize);
            if (head.size() < blockHeaderSize)
                return false;
            if (!isBlock(head)) {
                breakAt(data + blockHeaderSize - 1);
                return true;
            }
            vouchUpTo(position());
        }
        if (file.size() < data + element.size)
            return false;
        moveTo(data + element.size);
        return true;
    }

    /// A track's number, which is small, a time, and flags of which some are reserved.
    static bool isBlock(ByteView head)
    {
        constexpr std::uint8_t reservedFlags = 0x70;
        constexpr std::uint8_t maxTrack = 0x80 + 32;
        return head.u8(0) > 0x80 && head.u8(0) <= maxTrack && (head.u8(3) & reservedFlags) == 0;
    }

    /// Behind a master element: its checksum, where it has one, has to be right.
    bool leaveMaster(FileBytes& file)
    {
        constexpr std::uint64_t checksumElement = 6;
        const auto head = bytesAt(file, masterStart_, checksumElement);
        if (masterEnd_ - masterStart_ < checksumElement || ByteView(head).u16be(0) != 0xBF84)
            return true;
        CRC32 crc;
        for (auto place = masterStart_ + checksumElement; place < masterEnd_;) {
            const auto bytes = file.stretch(place,
                static_cast<std::size_t>(std::min<std::uint64_t>(readSize, masterEnd_ - place)));
            if (bytes.empty())
                return false;
            crc.add(bytes);
            place += bytes.size();
        }
        if (crc.value() != ByteView(head).u32le(2)) {
            breakAt(masterEnd_ - 1);
            return true;
        }
        vouchUpTo(masterEnd_);
        coverage_.verify(masterStart_, masterEnd_);
        return true;
    }

    /// Whether clusters lie where the index says, as far as those places were met.
    bool areCuesTrue(FileBytes& file) const
    {
        auto place = masterStart_;
        for (int count = 0; count < maxCues && place < masterEnd_; ++count) {
            const auto bytes = bytesAt(file, place, maxHeaderSize + 8);
            const auto element = Element::from(bytes);
            if (!element || !element->isSized || element->size > masterEnd_ - place)
                return false;
            place += element->headerSize;
            if (element->id == cuePoint || element->id == cueTrackPositions)
                continue;
            if (element->id == cueClusterPosition && !isClusterAt(file, bytes, *element))
                return false;
            place += element->size;
        }
        return true;
    }

    bool isClusterAt(FileBytes& file, ByteView bytes, const Element& element) const
    {
        std::uint64_t position = 0;
        for (std::uint64_t i = 0; i < std::min<std::uint64_t>(element.size, 8); ++i)
            position = position << 8 | bytes.u8(static_cast<std::int64_t>(element.headerSize + i));
        const auto place = segmentStart_ + std::min(position, maxSize);
        const auto found = load<BE32>(file, place);
        return place >= masterStart_ || (found && *found == cluster);
    }

    bool finish()
    {
        const bool isProved = coverage_.isCompleteAt(segmentEnd_);
        endAt(segmentEnd_, isProved ? Proof::checksum : Proof::chain);
        return true;
    }

    /// A recording that was never closed merely ends.
    bool endWithFile(FileBytes& file)
    {
        if (segmentEnd_ != UINT64_MAX || position() != file.size())
            return false;
        endAt(position(), Proof::none);
        return true;
    }

    std::uint64_t segmentStart_ = 0; ///< of its data; 0 before it was met
    std::uint64_t segmentEnd_ = 0;
    bool isInCluster_ = false;
    std::uint64_t clusterEnd_ = 0;
    std::uint64_t masterStart_ = 0, masterEnd_ = 0; ///< of the last element of the segment
    Coverage coverage_;
};

} // namespace

std::unique_ptr<Checker> matroska() { return std::make_unique<EBMLChecker>(); }

} // namespace Content::Formats
