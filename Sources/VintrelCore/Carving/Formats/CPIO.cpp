#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Text.h"

#include <cstddef>

// cpio(5): headers, each with a name and the contents of its file behind it. The last one is called
// "TRAILER!!!". New ASCII Format has hexadecimal digits, Portable ASCII Format octal ones, and Old
// Binary Format numbers of 16 bits in the order of the machine.

namespace Formats {

namespace {

template <std::size_t size> using Field = std::array<char, size>;

struct NewHeader {
    std::array<char, 6> magic;       //  0  "070701", or "070702" with sums
    std::array<Field<8>, 6> node;    //  6  number, mode, owner, links, time
    Field<8> fileSize;               // 54
    std::array<Field<8>, 4> devices; // 62
    Field<8> nameSize;               // 94  its zero included
    Field<8> checksum;               // 102
};
static_assert(sizeof(NewHeader) == 110 && offsetof(NewHeader, nameSize) == 94);

struct PortableHeader {
    std::array<char, 6> magic;    //  0  "070707"
    std::array<Field<6>, 7> node; //  6  device, number, mode, owner, links, device
    Field<11> time;               // 48
    Field<6> nameSize;            // 59
    Field<11> fileSize;           // 65
};
static_assert(sizeof(PortableHeader) == 76 && offsetof(PortableHeader, fileSize) == 65);

template <std::endian order> struct OldHeader {
    using Half = Stored<std::uint16_t, order>;
    Half magic;               // 0
    std::array<Half, 7> node; // 2   as above
    std::array<Half, 2> time; // 16  the more significant half comes first
    Half nameSize;            // 20
    Half sizeHigh, sizeLow;   // 22, 24
};
static_assert(sizeof(OldHeader<std::endian::little>) == 26);
constexpr std::uint16_t oldMagic = 070707;

/// One file of the archive. Programs fill up its name and its contents to whole units.
struct Member {
    std::uint64_t headerSize;
    std::uint64_t nameSize;
    std::uint64_t fileSize;
    std::uint64_t unit; ///< in bytes
};

constexpr std::uint64_t blockSize = 512;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr std::uint64_t maxName = 65'536;
constexpr std::string_view trailer { "TRAILER!!!\0", 11 };

/// A member whose header is in digits of this base; none when others stand there.
template <class Header>
std::optional<Member> memberInDigits(const Header& header, int base, std::uint64_t unit)
{
    const auto fileSize = Text::number({ header.fileSize.data(), header.fileSize.size() }, base);
    const auto nameSize = Text::number({ header.nameSize.data(), header.nameSize.size() }, base);
    if (!fileSize || !nameSize)
        return std::nullopt;
    return Member { sizeof header, *nameSize, *fileSize, unit };
}

template <std::endian order> Member oldMember(RandomReader& file, std::uint64_t position)
{
    const auto header = file.load<OldHeader<order>>(position);
    const std::uint64_t high = header.sizeHigh;
    return { sizeof header, header.nameSize, high << 16 | header.sizeLow, 2 };
}

/// The member at `position`; none when no header of any format lies there.
std::optional<Member> memberAt(RandomReader& file, std::uint64_t position)
{
    if (file.matches(position, "070701") || file.matches(position, "070702"))
        return memberInDigits(file.load<NewHeader>(position), 16, 4);
    if (file.matches(position, "070707"))
        return memberInDigits(file.load<PortableHeader>(position), 8, 1);
    if (file.u16le(position) == oldMagic)
        return oldMember<std::endian::little>(file, position);
    if (file.u16be(position) == oldMagic)
        return oldMember<std::endian::big>(file, position);
    return std::nullopt;
}

/// Programs go on with zeros to the end of a block.
std::uint64_t behindZeros(RandomReader& file, std::uint64_t position)
{
    const std::uint64_t end = unitsFor(position, blockSize) * blockSize;
    if (end > file.size())
        return position;
    const auto rest = file.bytes(position, static_cast<std::size_t>(end - position));
    return ByteView(rest).isAllZero() ? end : position;
}

} // namespace

Found cpio(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 0;
    while (position < limit && candidate.fits(position)) {
        const auto member = memberAt(file, position);
        if (!member || member->nameSize == 0 || member->nameSize > maxName)
            break;
        const auto aligned
            = [&](std::uint64_t end) { return unitsFor(end, member->unit) * member->unit; };
        const std::uint64_t name = position + member->headerSize;
        position = aligned(aligned(name + member->nameSize) + member->fileSize);
        if (!candidate.fits(position))
            break;
        if (member->nameSize == trailer.size() && file.matches(name, trailer))
            return candidate.proved(behindZeros(file, position), "cpio");
    }
    return std::nullopt;
}

} // namespace Formats
