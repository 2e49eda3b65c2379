#include "VintrelCore/Carving/Formats/Formats.h"

// ISO/IEC 13818-1 (ITU-T H.222.0), transport stream: packets of 188 bytes. Camcorders and Blu-ray
// discs put four bytes of arrival time in front of each.

namespace Formats {

namespace {

constexpr std::uint64_t plainSize = 188;
constexpr std::uint64_t timeSize = 4;
constexpr int maxPackets = 1'000'000'000;
constexpr int minPackets = 8;
/// How many packets a stream may take to tell what it holds, which it does ten times a second.
constexpr int maxBeforeTable = 4096;

/// The four bytes that a packet begins with.
struct Packet {
    std::uint32_t header;

    bool isSound() const
    {
        constexpr std::uint32_t syncAndError = 0xFF80'0000;
        constexpr std::uint32_t sync = 0x4700'0000;
        return (header & syncAndError) == sync && (header & (hasField | hasPayload)) != 0;
    }
    bool isStuffing() const { return stream() == 0x1FFF; }
    bool beginsTable() const { return stream() == 0 && (header & beginsUnit) != 0; }
    /// Whether it is of a stream with tables that all players read first.
    bool isTable() const { return stream() == 0 || stream() == 0x11; }
    std::uint32_t stream() const { return header >> 8 & 0x1FFF; }
    /// Whether it may follow the packet of the same stream that had this counter.
    bool follows(std::uint8_t counter) const
    {
        const auto own = header & 0xF;
        return own == counter || ((header & hasPayload) != 0 && own == ((counter + 1U) & 0xF));
    }
    std::uint8_t counter() const { return header & 0xF; }

    static constexpr std::uint32_t beginsUnit = 0x40'0000;
    static constexpr std::uint32_t hasField = 0x20;
    static constexpr std::uint32_t hasPayload = 0x10;
};

/// Follows the packets of one stream.
class Packets {
public:
    Packets(RandomReader& file, std::uint64_t before)
        : file_(file)
        , before_(before)
        , size_(before + plainSize)
    {
        counters_.fill(unknown);
    }

    /// The end of the last packet; none when this is no stream.
    std::optional<std::uint64_t> end()
    {
        bool hasTable = false;
        int count = 0;
        for (; count < maxPackets && isPacket(); ++count) {
            const auto packet = at(position_);
            hasTable |= packet.beginsTable();
            if (!hasTable && count >= maxBeforeTable)
                return std::nullopt;
            counters_[packet.stream()] = packet.counter();
            position_ += size_;
        }
        return hasTable && count >= minPackets ? std::optional(position_) : std::nullopt;
    }

private:
    static constexpr std::uint8_t unknown = 0xFF;

    Packet at(std::uint64_t position) { return { file_.u32be(position + before_) }; }

    /// Whether a packet of this stream lies at the position: one that goes on where another
    /// stopped, or in front of others.
    bool isPacket()
    {
        const auto packet = at(position_);
        if (!packet.isSound() || size_ > file_.size() || position_ > file_.size() - size_)
            return false;
        const auto counter = counters_[packet.stream()];
        if (beginsAnother(packet, counter))
            return false;
        if (packet.isStuffing() || (counter != unknown && packet.follows(counter)))
            return true;
        constexpr std::uint64_t vouching = 4;
        for (std::uint64_t next = 1; next <= vouching; ++next)
            if (!at(position_ + next * size_).isSound())
                return false;
        return true;
    }

    /// Whether another file begins: at a sector, with a table that does not follow the last one.
    bool beginsAnother(const Packet& packet, std::uint8_t counter) const
    {
        constexpr std::uint64_t sectorSize = 512;
        return counter != unknown && position_ % sectorSize == 0 && packet.isTable()
            && packet.counter() != ((counter + 1U) & 0xF);
    }

    RandomReader& file_;
    std::uint64_t before_;
    std::uint64_t size_;
    std::uint64_t position_ = 0;
    std::array<std::uint8_t, 8192> counters_; ///< of the last packet of each stream
};

Found stream(const Candidate& candidate, std::uint64_t before, const char* ext)
{
    constexpr std::uint64_t lookedAt = 3; // before anything is set up for a candidate
    const std::uint64_t size = before + plainSize;
    for (std::uint64_t packet = 0; packet < lookedAt; ++packet)
        if (!Packet { candidate.file.u32be(packet * size + before) }.isSound())
            return std::nullopt;
    const auto end = Packets(candidate.file, before).end();
    return end ? Found(candidate.proved(*end, ext)) : std::nullopt;
}

} // namespace

Found mpegTS(const Candidate& candidate) { return stream(candidate, 0, "ts"); }

Found mpegTSWithTimes(const Candidate& candidate) { return stream(candidate, timeSize, "mts"); }

} // namespace Formats
