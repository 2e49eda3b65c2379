#include "VintrelCore/Carving/Signatures.h"

#include "VintrelCore/Carving/Formats/MailHeader.h"

#include <algorithm>

namespace {

constexpr std::array<std::uint8_t, 4> all { 0xFF, 0xFF, 0xFF, 0xFF };
constexpr std::array<std::uint8_t, 4> first { 0xFF, 0, 0, 0 };
constexpr std::array<std::uint8_t, 4> firstTwo { 0xFF, 0xFF, 0, 0 };
constexpr std::array<std::uint8_t, 4> firstThree { 0xFF, 0xFF, 0xFF, 0 };

using enum FileCategory;

constexpr Signature signatures[] = {
    { { 0xFF, 0xD8, 0xFF, 0xC0 }, { 0xFF, 0xFF, 0xFF, 0xC0 }, image,
        Formats::jpeg }, // any marker from C0 on
    { { 0x89, 'P', 'N', 'G' }, all, image, Formats::png },
    { { 'G', 'I', 'F', '8' }, all, image, Formats::gif },
    { { 'B', 'M', 0, 0 }, firstTwo, image, Formats::bmp },
    { { 'I', 'I', 0x2A, 0 }, all, image, Formats::tiff },
    { { 'I', 'I', 0x2A, 0x4F }, all, image, Formats::tiff },
    { { 'I', 'I', 0x52, 0 }, all, image, Formats::tiff }, // 52: Olympus
    { { 'I', 'I', 0x52, 0x4F }, all, image, Formats::tiff },
    { { 'I', 'I', 0x55, 0 }, all, image, Formats::tiff }, // 55: Panasonic
    { { 'I', 'I', 0x55, 0x4F }, all, image, Formats::tiff },
    { { 'M', 'M', 0, 0x2A }, all, image, Formats::tiff },
    { { 'I', 'I', 0x2B, 0 }, all, image, Formats::bigTIFF },
    { { 'M', 'M', 0, 0x2B }, all, image, Formats::bigTIFF },
    { { 'F', 'U', 'J', 'I' }, all, image, Formats::raf },
    { { 'R', 'a', 'r', '!' }, all, archive, Formats::rar },
    { { 'R', 'I', 'F', 'F' }, all, std::nullopt, Formats::riff },
    { { 'R', 'F', '6', '4' }, all, audio, Formats::wideRIFF },
    { { 'B', 'W', '6', '4' }, all, audio, Formats::wideRIFF },
    { { 'F', 'O', 'R', 'M' }, all, audio, Formats::aiff },
    { { 0x1A, 0x45, 0xDF, 0xA3 }, all, std::nullopt, Formats::ebml },
    { { '%', 'P', 'D', 'F' }, all, document, Formats::pdf },
    { { '7', 'z', 0xBC, 0xAF }, all, archive, Formats::sevenZip },
    { { 'S', 'Q', 'L', 'i' }, all, document, Formats::sqlite },
    { { 0xD0, 0xCF, 0x11, 0xE0 }, all, document, Formats::ole },
    { { 'O', 'g', 'g', 'S' }, all, std::nullopt, Formats::ogg },
    { { 'P', 'K', 3, 4 }, all, std::nullopt, Formats::zip },
    { { 'I', 'D', '3', 0 }, firstThree, audio, Formats::mp3 },
    { { 0xFF, 0xF0, 0, 0 }, { 0xFF, 0xF6, 0, 0 }, audio, Formats::aac }, // layer 0 is no MPEG sound
    { { 0xFF, 0xE0, 0, 0 }, { 0xFF, 0xE0, 0, 0 }, audio, Formats::mp3WithoutTag },
    { { '{', '\\', 'r', 't' }, all, document, Formats::rtf },
    { { 'f', 'L', 'a', 'C' }, all, audio, Formats::flac },
    { { '#', '!', 'A', 'M' }, all, audio, Formats::amr },
    { { 'c', 'a', 'f', 'f' }, all, audio, Formats::caf },
    { { '.', 's', 'n', 'd' }, all, audio, Formats::au },
    { { 'M', 'A', 'C', ' ' }, all, audio, Formats::ape },
    { { 'w', 'v', 'p', 'k' }, all, audio, Formats::wavPack },
    { { 'M', 'T', 'h', 'd' }, all, audio, Formats::midi },
    { { 0, 0, 1, 0xBA }, all, video, Formats::mpegPS },
    { { 'F', 'L', 'V', 1 }, all, video, Formats::flv },
    { { 0x30, 0x26, 0xB2, 0x75 }, all, std::nullopt, Formats::asf },
    { { '8', 'B', 'P', 'S' }, all, image, Formats::psd },
    { { 0x1F, 0x8B, 8, 0 }, firstThree, archive, Formats::gzip },
    { { 'B', 'Z', 'h', 0 }, firstThree, archive, Formats::bzip2 },
    { { 0xFD, '7', 'z', 'X' }, all, archive, Formats::xz },
    { { 0x28, 0xB5, 0x2F, 0xFD }, all, archive, Formats::zstandard },
    { { 0x50, 0x2A, 0x4D, 0x18 }, all, archive, Formats::zstandard },
    { { 'M', 'S', 'C', 'F' }, all, archive, Formats::cabinet },
    { { '0', '7', '0', '7' }, all, archive, Formats::cpio },
    { { 0xC7, 0x71, 0, 0 }, firstTwo, archive, Formats::cpio },
    { { 0x71, 0xC7, 0, 0 }, firstTwo, archive, Formats::cpio },
    { { 'F', 'r', 'o', 'm' }, all, document, Formats::mail },
    { { 'B', 'E', 'G', 'I' }, all, document, Formats::contacts },
    { { 'b', 'e', 'g', 'i' }, all, document, Formats::contacts },
    { { 0xEF, 0xBB, 0xBF, 'B' }, all, document, Formats::contacts }, // with a byte order mark
    { { '-', '-', '-', '-' }, all, document, Formats::armour },
    { { 'B', 'a', 'g', ' ' }, all, document, Formats::armour },
    { { 'C', 'e', 'r', 't' }, all, document, Formats::armour },
    { { 'P', 'u', 'b', 'l' }, all, document, Formats::armour },
    { { 'P', 'r', 'i', 'v' }, all, document, Formats::armour },
    { { 'R', 'S', 'A', ' ' }, all, document, Formats::armour },
    { { 's', 'u', 'b', 'j' }, all, document, Formats::armour },
    { { 0x98, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP }, // public keys
    { { 0x99, 0, 0, 4 }, { 0xFF, 0, 0, 0xFF }, document, Formats::openPGP },
    { { 0x94, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP }, // secret ones
    { { 0x95, 0, 0, 4 }, { 0xFF, 0, 0, 0xFF }, document, Formats::openPGP },
    { { 0x84, 0, 3, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP }, // messages
    // The same in the newer format, with one byte of length and with two.
    { { 0xC5, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP },
    { { 0xC5, 0xC0, 0, 4 }, { 0xFF, 0xE0, 0, 0xFF }, document, Formats::openPGP },
    { { 0xC6, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP },
    { { 0xC6, 0xC0, 0, 4 }, { 0xFF, 0xE0, 0, 0xFF }, document, Formats::openPGP },
    { { 0xC1, 0, 3, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP },
    { { 0xC1, 0xC0, 0, 3 }, { 0xFF, 0xE0, 0, 0xFF }, document, Formats::openPGP },
    { { 0xC3, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP },
    { { 0x85, 0, 0, 3 }, { 0xFF, 0, 0, 0xFF }, document, Formats::openPGP },
    { { 0x8C, 0, 4, 0 }, { 0xFF, 0, 0xFF, 0 }, document, Formats::openPGP },
    { { 'P', 'u', 'T', 'T' }, all, document, Formats::puttyKey },
    { { '{', '\n', ' ', ' ' }, all, document, Formats::passwordExport },
    { { '{', '\r', '\n', ' ' }, all, document, Formats::passwordExport },
    { { '{', '"', 'e', 'n' }, all, document, Formats::passwordExport },
    { { 'n', 'a', 'm', 'e' }, all, document, Formats::passwordTable },
    { { '"', 'u', 'r', 'l' }, all, document, Formats::passwordTable },
    { { 'T', 'i', 't', 'l' }, all, document, Formats::passwordTable },
    { { 'f', 'o', 'l', 'd' }, all, document, Formats::passwordTable },
    { { 'c', 'o', 'l', 'l' }, all, document, Formats::passwordTable },
    { { 'u', 'r', 'l', ',' }, all, document, Formats::passwordTable },
    { { '"', 'G', 'r', 'o' }, all, document, Formats::passwordTable },
    { { '"', 'A', 'c', 'c' }, all, document, Formats::passwordTable },
    { { 3, 0xD9, 0xA2, 0x9A }, all, document, Formats::kdbx },
    { { '!', 'B', 'D', 'N' }, all, document, Formats::pst },
    { { 'A', 'C', '1', '0' }, all, document, Formats::dwg },
    { { 0x06, 0x06, 0xED, 0xF5 }, all, document, Formats::indd },
    { { '<', '?', 'x', 'm' }, all, image, Formats::svg },
    { { '<', 's', 'v', 'g' }, all, image, Formats::svg },
    { { '<', '!', '-', '-' }, all, image, Formats::svg },
    { { '<', '!', 'D', 'O' }, all, image, Formats::svg },
    { { 0xEF, 0xBB, 0xBF, '<' }, all, image, Formats::svg }, // with a byte order mark
    { { 'I', 'S', 'O', '-' }, all, document, Formats::step },
    { { ' ', ' ', '0', '\n' }, all, document, Formats::dxf },
    { { ' ', ' ', '0', '\r' }, all, document, Formats::dxf },
    { { ' ', '0', '\n', 'S' }, all, document, Formats::dxf },
    { { ' ', '0', '\r', '\n' }, all, document, Formats::dxf },
    { { '\t', '0', '\n', 'S' }, all, document, Formats::dxf },
    { { '0', '\n', 'S', 'E' }, all, document, Formats::dxf },
    { { '0', '\r', '\n', 'S' }, all, document, Formats::dxf },
    { { '9', '9', '9', '\n' }, all, document, Formats::dxf },
    { { '9', '9', '9', '\r' }, all, document, Formats::dxf },
    { { 0, 0, 0, 12 }, all, image, Formats::jpeg2000 },
    { { 0xFF, 0x4F, 0xFF, 0x51 }, all, image, Formats::jpeg2000Codestream },
    { { 'A', 'T', '&', 'T' }, all, document, Formats::djvu },
    { { 0, 0, 1, 0 }, all, image, Formats::ico },
    { { 0xD7, 0xCD, 0xC6, 0x9A }, all, image, Formats::wmf },
    { { 1, 0, 0, 0 }, all, image, Formats::emf },
    { { 'g', 'i', 'm', 'p' }, all, image, Formats::xcf },
    { { 'D', 'D', 'S', ' ' }, all, image, Formats::dds },
    { { 'B', 'L', 'E', 'N' }, all, document, Formats::blend },
    { { 0x06, 0x0E, 0x2B, 0x34 }, all, video, Formats::mxf },
    { { 0x1F, 0x07, 0, 0 }, firstThree, video, Formats::dv },
    { { 'S', 'D', 'P', 'X' }, all, image, Formats::dpx },
    { { 'X', 'P', 'D', 'S' }, all, image, Formats::dpx },
    { { 0, 'M', 'R', 'M' }, all, image, Formats::mrw },
    { { 'I', 'I', 0x1A, 0 }, all, image, Formats::crw },
    { { 'F', 'O', 'V', 'b' }, all, image, Formats::x3f },
    { { 'G', 0, 0, 0 }, first, video, Formats::mpegTS },
};

bool matches(ByteView head, const Signature& signature)
{
    for (std::size_t i = 0; i < signature.magic.size(); ++i)
        if ((head.data()[i] & signature.mask[i]) != signature.magic[i])
            return false;
    return true;
}

/// The rows in the order of their first bytes, and for each first byte where its rows begin: nearly
/// every sector is asked for that alone. Rows of one first byte stay in the order of the table.
struct SignatureIndex {
    std::array<std::uint8_t, std::size(signatures)> rows {};
    std::array<std::uint8_t, 257> begins {};
};
static_assert(std::size(signatures) < 256);

constexpr auto signatureIndex = [] {
    SignatureIndex index;
    std::size_t count = 0;
    for (std::size_t byte = 0; byte < 256; ++byte) {
        index.begins[byte] = static_cast<std::uint8_t>(count);
        for (std::size_t row = 0; row < std::size(signatures); ++row)
            if (signatures[row].magic[0] == byte)
                index.rows[count++] = static_cast<std::uint8_t>(row);
    }
    index.begins[256] = static_cast<std::uint8_t>(count);
    return index;
}();

} // namespace

const Signature* signatureOf(ByteView head)
{
    const std::size_t first = head.data()[0];
    const std::size_t end = signatureIndex.begins[first + 1];
    for (std::size_t i = signatureIndex.begins[first]; i < end; ++i)
        if (const auto& row = signatures[signatureIndex.rows[i]]; matches(head, row))
            return &row;
    return nullptr;
}

namespace {

/// By the type of a first box, which its size stands in front of: the usual one, those of films of
/// the years before it, and those of RED.
FormatReader readerByBox(std::uint32_t type)
{
    switch (type) {
    case 0x6674'7970: // ftyp
        return Formats::isoBMFF;
    case 0x6D6F'6F76: // moov
    case 0x6D64'6174: // mdat
    case 0x7769'6465: // wide
    case 0x6672'6565: // free
    case 0x736B'6970: // skip
    case 0x706E'6F74: // pnot
        return Formats::quickTime;
    case 0x5245'4431: // RED1
    case 0x5245'4432: // RED2
        return Formats::r3d;
    default:
        return nullptr;
    }
}

/// Whether the last bytes may be text or zeros: random bytes nearly never are, and nothing else is
/// asked of them then.
bool endsInASCII(ByteView head)
{
    constexpr std::uint64_t aboveASCII = 0x8080'8080'8080'8080;
    constexpr std::int64_t lastEight = 56;
    return (head.u64le(lastEight) & aboveASCII) == 0;
}

/// Whether it may be a name with zeros behind it, a line with zeros, or one that is longer than the
/// head, as at the beginning of a TAR archive.
bool mayBePaddedName(ByteView head)
{
    constexpr std::uint8_t firstPrintable = 0x20;
    const auto bytes = head.span();
    const auto end
        = std::ranges::find_if(bytes, [](std::uint8_t byte) { return byte < firstPrintable; });
    const auto padding = end != bytes.end() && *end == '\n' ? end + 1 : end;
    return end != bytes.begin()
        && std::all_of(padding, bytes.end(), [](std::uint8_t byte) { return byte == 0; });
}

/// Whether the mark of a B-tree, a hash or a queue of Berkeley DB lies behind a page's number,
/// which is zero.
bool mayBeginBerkeleyDB(ByteView head)
{
    constexpr std::uint32_t marks[] = { 0x0005'3162, 0x0006'1561, 0x0004'2253 };
    return head.u32le(8) == 0
        && (std::ranges::count(marks, head.u32le(12)) > 0
            || std::ranges::count(marks, head.u32be(12)) > 0);
}

/// Whether a CD's image may begin here: nothing, or one of the programs that start a computer from
/// it or from a copy on a stick.
bool mayBeginDisc(ByteView head)
{
    const auto start = head.u16be(0);
    return start == 0 ? head.u64be(0) == 0 : start == 0x33ED || start == 0xEB63 || start == 0x4552;
}

/// Whether the numbers of a picture may stand here whose mark is in its footer.
bool mayBeginTGA(ByteView head)
{
    const auto* const bytes = head.data();
    const auto type = bytes[2] & ~8;
    return bytes[1] <= 1 && type >= 1 && type <= 3 && head.u16le(3) == 0 && bytes[16] >= 8
        && bytes[16] <= 32;
}

// The titles of triangles may be anything that is text, or nothing.

Formats::Found archiveOrTriangles(const Candidate& candidate)
{
    auto found = Formats::tar(candidate);
    return found ? found : Formats::stl(candidate);
}

// Names of files may hold a colon as well.

Formats::Found mailOrArchive(const Candidate& candidate)
{
    auto found = Formats::mail(candidate);
    return found ? found : archiveOrTriangles(candidate);
}

Formats::Found discOrTriangles(const Candidate& candidate)
{
    auto found = Formats::iso9660(candidate);
    return found ? found : Formats::stl(candidate);
}

/// What a byte may be the beginning of, by its place in the head.
enum Role : std::uint8_t {
    beginsDisc = 1, ///< the first byte
    beginsType = 2, ///< the fifth one: of a box, or a packet behind a time
};

constexpr auto rolesOfBytes = [] {
    std::array<std::uint8_t, 256> roles {};
    for (const auto byte : { 0x00U, 0x33U, 0xEBU, 0x45U })
        roles[byte] |= beginsDisc;
    for (const auto letter : { 'f', 'm', 'w', 's', 'p', 'R', 'G' })
        roles[static_cast<std::uint8_t>(letter)] |= beginsType;
    return roles;
}();

/// What nearly every sector fails. All marks are looked at in one step: a branch for each one costs
/// more than looking.
bool mayHaveInnerMark(ByteView head)
{
    const auto* const bytes = head.data();
    const unsigned isTypeOrDisc
        = (rolesOfBytes[bytes[0]] & beginsDisc) | (rolesOfBytes[bytes[4]] & beginsType);
    const unsigned isPicture = bytes[1] <= 1 ? 1 : 0;
    const unsigned isDatabase = head.u32le(8) == 0 ? 1 : 0;
    const unsigned isText = endsInASCII(head) ? 1 : 0;
    return (isTypeOrDisc | isPicture | isDatabase | isText) != 0;
}

} // namespace

FormatReader readerByInnerMark(ByteView head)
{
    if (!mayHaveInnerMark(head))
        return nullptr;
    if (const auto read = readerByBox(head.u32be(4)))
        return read;
    if (mayBeginBerkeleyDB(head))
        return Formats::berkeleyDB;
    if (mayBeginTGA(head))
        return Formats::tga;
    if (mayBeginDisc(head))
        return discOrTriangles;
    if (endsInASCII(head)) {
        if (Formats::MailHeader::mayBeginWith(head))
            return mailOrArchive;
        if (mayBePaddedName(head))
            return archiveOrTriangles;
    }
    if (head.u8(4) == 'G') // behind a time
        return Formats::mpegTSWithTimes;
    return nullptr;
}
