#include "VintrelCore/Carving/Formats/Formats.h"

// RFC 9580, OpenPGP, packets of both formats: keys and messages that are not written as text.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;
constexpr int maxPackets = 1'000'000;

enum Tag : std::uint8_t {
    sessionKey = 1,
    signature = 2,
    passwordKey = 3,
    secretKey = 5,
    publicKey = 6,
    secretSubkey = 7,
    trust = 12,
    userID = 13,
    publicSubkey = 14,
    userAttribute = 17,
    encryptedData = 18,
};

/// The length of a body or of a part of one, and where it begins.
struct Length {
    std::uint64_t begin;
    std::uint64_t count;
    bool isPart; ///< whether the next length follows behind it
};

/// None for a body whose length is not told.
std::optional<Length> oldLength(RandomReader& file, std::uint64_t position, std::uint8_t tagByte)
{
    switch (tagByte & 3) {
    case 0:
        return Length { position + 1, file.u8(position), false };
    case 1:
        return Length { position + 2, file.u16be(position), false };
    case 2:
        return Length { position + 4, file.u32be(position), false };
    default:
        return std::nullopt;
    }
}

Length newLength(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint8_t firstOfTwo = 192, firstPart = 224, fourFollow = 255;
    const std::uint64_t first = file.u8(position);
    if (first < firstOfTwo)
        return { position + 1, first, false };
    if (first < firstPart)
        return { position + 2, (first - firstOfTwo) * 256 + file.u8(position + 1) + firstOfTwo,
            false };
    if (first == fourFollow)
        return { position + 5, file.u32be(position + 1), false };
    return { position + 1, std::uint64_t { 1 } << (first & 0x1F), true };
}

struct Packet {
    std::uint8_t tag;
    std::uint64_t body;
    std::uint64_t end;
};

/// The packet at `position`; none when none lies there as a whole.
std::optional<Packet> packetAt(const Candidate& candidate, std::uint64_t position)
{
    constexpr std::uint8_t always = 0x80, isNew = 0x40;
    auto& file = candidate.file;
    const auto tagByte = file.u8(position);
    if ((tagByte & always) == 0)
        return std::nullopt;
    const bool hasNewLength = (tagByte & isNew) != 0;
    auto length = hasNewLength ? std::optional(newLength(file, position + 1))
                               : oldLength(file, position + 1, tagByte);
    if (!length)
        return std::nullopt;
    Packet packet { static_cast<std::uint8_t>(hasNewLength ? tagByte & 0x3F : tagByte >> 2 & 0xF),
        length->begin, 0 };
    constexpr std::uint64_t leastFirstPart = 512;
    if (length->isPart && (packet.tag != encryptedData || length->count < leastFirstPart))
        return std::nullopt;
    for (int parts = 0; length->isPart && parts < maxPackets; ++parts) {
        if (!candidate.fits(length->begin + length->count))
            return std::nullopt;
        length = newLength(file, length->begin + length->count);
    }
    packet.end = length->begin + length->count;
    const bool isWhole = !length->isPart && candidate.fits(packet.end) && packet.end < limit;
    return isWhole && packet.end > packet.body ? std::optional(packet) : std::nullopt;
}

/// Whether it is the number of an algorithm with public keys.
bool isPublicKeyAlgorithm(std::uint8_t number)
{
    constexpr std::uint8_t lastOfRSA = 3, elgamal = 16, last = 28;
    return (number >= 1 && number <= lastOfRSA) || (number >= elgamal && number <= last);
}

/// Whether the body begins as one of its kind does. Packets of other kinds stand in no such file.
bool isSound(RandomReader& file, const Packet& packet)
{
    constexpr std::uint64_t behindKeyID = 9, behindTime = 5;
    constexpr std::uint8_t lastCipher = 13;
    const auto version = file.u8(packet.body);
    const auto cipher = file.u8(packet.body + 1);
    switch (packet.tag) {
    case sessionKey:
        return version == 3 && isPublicKeyAlgorithm(file.u8(packet.body + behindKeyID));
    case signature:
        return version == 3 || version == 4;
    case passwordKey:
        return version == 4 && cipher >= 1 && cipher <= lastCipher;
    case secretKey:
    case publicKey:
    case secretSubkey:
    case publicSubkey:
        return version == 4 && isPublicKeyAlgorithm(file.u8(packet.body + behindTime));
    case encryptedData:
        return version == 1;
    case userID:
        return packet.end - packet.body < 4096 && version >= 0x20;
    case trust:
    case userAttribute:
        return packet.end - packet.body < 16'777'216;
    default:
        return false;
    }
}

} // namespace

Found openPGP(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t tags = 0; // a bit for each
    const auto has = [&](Tag tag) { return (tags >> tag & 1) != 0; };
    std::uint64_t position = 0;
    for (int count = 0; count < maxPackets && !file.isExhausted(); ++count) {
        const auto packet = packetAt(candidate, position);
        if (!packet || !isSound(file, *packet))
            break;
        tags |= std::uint64_t { 1 } << packet->tag;
        position = packet->end;
        if (packet->tag == encryptedData) // the last one of a message
            break;
    }
    const bool isKey = (has(secretKey) || has(publicKey)) && has(userID) && has(signature);
    const bool isMessage = (has(sessionKey) || has(passwordKey)) && has(encryptedData);
    return isKey != isMessage ? Found(candidate.proved(position, "gpg")) : std::nullopt;
}

} // namespace Formats
