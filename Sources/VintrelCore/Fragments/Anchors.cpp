#include "VintrelCore/Fragments/Anchors.h"

#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Fragments/TableAnchors.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <array>
#include <bit>
#include <optional>
#include <set>

// PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3; ISO 32000-1, file structure;
// ISO/IEC 14496-12, boxes; Microsoft "AVI RIFF File Reference"; RFC 9559, Matroska: SeekHead.

namespace Fragments {

namespace {

constexpr std::uint64_t mostRead = 1'073'741'824; ///< of the source, or a quarter of it
constexpr std::size_t mostAnchors = 65'536;
constexpr std::size_t mostShifts = 64; ///< of one file

Bytes bytesAt(BlockCache& cache, std::uint64_t offset, std::size_t count)
{
    Bytes bytes;
    bytes.reserve(count);
    while (bytes.size() < count) {
        const auto part = cache.from(offset + bytes.size());
        if (part.empty())
            break;
        const auto taken = part.span().first(std::min(part.size(), count - bytes.size()));
        bytes.insert(bytes.end(), taken.begin(), taken.end());
    }
    return bytes;
}

/// By the end record: the archive's first entry bears the name that its head has.
std::optional<std::uint64_t> shiftByZIPEnd(BlockCache& cache, std::uint64_t end, ByteView head)
{
    constexpr std::uint32_t mostDirectory = 4'194'304;
    constexpr std::uint32_t centralSignature = 0x0201'4B50;
    constexpr int mostEntries = 65'536;
    const auto record = bytesAt(cache, end, 22);
    const std::uint32_t size = ByteView(record).u32le(12);
    const std::uint32_t start = ByteView(record).u32le(16);
    if (size > mostDirectory || size > end || size < 46)
        return std::nullopt;
    const auto bytes = bytesAt(cache, end - size, size);
    const ByteView directory(bytes);
    std::int64_t at = 0;
    for (int count = 0; count < mostEntries && directory.u32le(at) == centralSignature; ++count) {
        const auto nameLength = directory.u16le(at + 28);
        if (directory.u32le(at + 42) == 0) {
            const bool isSame = nameLength == head.u16le(26)
                && head.matches(directory.sub(at + 46, nameLength), 30)
                && directory.u32le(at + 12) == head.u32le(10); // the time
            return isSame ? std::optional(end - size - start) : std::nullopt;
        }
        at += 46 + nameLength + directory.u16le(at + 30) + directory.u16le(at + 32);
    }
    return std::nullopt;
}

bool isDigit(std::uint8_t byte) { return byte >= '0' && byte <= '9'; }

/// Where the object begins inside of which a place lies: at the number in front of "obj".
std::optional<std::uint64_t> startOfObject(ByteView text, std::int64_t at)
{
    while (at > 0 && !text.matches(" obj", at))
        --at;
    const auto skip = [&](auto isSkipped) {
        while (at > 0 && isSkipped(text.u8(at - 1)))
            --at;
    };
    skip(isDigit); // the generation
    skip([](std::uint8_t byte) { return byte == ' '; });
    skip(isDigit);
    return at > 0 ? std::optional(static_cast<std::uint64_t>(at)) : std::nullopt;
}

/// The last cross-reference table or stream in these bytes.
std::optional<std::uint64_t> startOfReferences(ByteView text)
{
    for (auto at = static_cast<std::int64_t>(text.size()); --at > 0;) {
        const auto before = text.u8(at - 1);
        if (text.matches("xref", at) && (before == '\n' || before == '\r'))
            return static_cast<std::uint64_t>(at);
        if (text.matches("/XRef", at))
            return startOfObject(text, at);
    }
    return std::nullopt;
}

/// By "startxref": the number behind it is the place of the cross-reference table, which lies not
/// far before it.
std::optional<std::uint64_t> shiftByPDFEnd(BlockCache& cache, std::uint64_t mark)
{
    constexpr std::uint64_t mostBefore = 1'048'576;
    constexpr std::string_view word = "startxref";
    const auto bytes = bytesAt(cache, mark + word.size(), 32);
    std::string digits;
    for (const auto byte : bytes) {
        if (byte >= '0' && byte <= '9')
            digits += static_cast<char>(byte);
        else if (!digits.empty() || byte > ' ')
            break;
    }
    const auto position = Text::number(digits);
    if (!position)
        return std::nullopt;
    const auto from = mark - std::min(mark, mostBefore);
    const auto region = bytesAt(cache, from, static_cast<std::size_t>(mark - from));
    const auto table = startOfReferences(region);
    return table ? std::optional(from + *table - *position) : std::nullopt;
}

/// By the box behind the media data, whose length its head tells.
std::optional<std::uint64_t> shiftByMovie(
    const std::vector<ByteRange>& pieces, std::uint64_t box, BlockCache& cache)
{
    constexpr int mostBoxes = 16;
    PiecedBytes file(cache, pieces);
    file.growToEnd();
    std::uint64_t position = 0;
    for (int count = 0; count < mostBoxes && position + 16 <= file.size(); ++count) {
        const auto bytes = Content::bytesAt(file, position, 16);
        const ByteView header(bytes);
        const std::uint64_t length = header.u32be(0) == 1 ? header.u64be(8) : header.u32be(0);
        if (length < 8 || length > UINT64_MAX / 4)
            return std::nullopt;
        position += length;
        if (header.matches("mdat", 4))
            return box - position;
    }
    return std::nullopt;
}

/// By the index behind the list of pictures and sound, whose length its head tells.
std::optional<std::uint64_t> shiftByFilmIndex(
    const std::vector<ByteRange>& pieces, std::uint64_t index, BlockCache& cache)
{
    constexpr int mostChunks = 64;
    constexpr std::uint64_t headerSize = 8, riffHeaderSize = 12;
    PiecedBytes file(cache, pieces);
    file.growToEnd();
    std::uint64_t position = riffHeaderSize;
    for (int count = 0; count < mostChunks; ++count) {
        const auto size = Content::load<LE32>(file, position + 4);
        if (!size)
            break;
        const auto next = position + headerSize + *size + (*size & 1);
        if (Content::isAt(file, position, "LIST") && Content::isAt(file, position + 8, "movi"))
            return index - next;
        position = next;
    }
    return std::nullopt;
}

/// By the list of places in the head of a Matroska file, which names that of the cues.
std::optional<std::uint64_t> shiftByCues(std::uint64_t cues, ByteView head)
{
    constexpr std::array<std::uint8_t, 4> segment { 0x18, 0x53, 0x80, 0x67 };
    constexpr std::array<std::uint8_t, 9> seekCues { 0x53, 0xAB, 0x84, 0x1C, 0x53, 0xBB, 0x6B, 0x53,
        0xAC }; // the identifier of the cues, and that of a position
    const auto begin = head.firstIndex(segment, 0);
    const auto seek = head.firstIndex(seekCues, 0);
    if (!begin || !seek)
        return std::nullopt;
    const auto sizeAt = *begin + static_cast<std::int64_t>(segment.size());
    const auto start = sizeAt + std::countl_zero(head.u8(sizeAt)) + 1;
    const auto lengthAt = *seek + static_cast<std::int64_t>(seekCues.size());
    const int length = head.u8(lengthAt) & 0x7F;
    if (length == 0 || length > 8)
        return std::nullopt;
    const auto position = head.u64be(lengthAt + 1) >> (64 - 8 * length);
    return cues - position - static_cast<std::uint64_t>(start);
}

constexpr std::array<std::uint8_t, 4> zipMark { 'P', 'K', 5, 6 };
constexpr std::array<std::uint8_t, 9> pdfMark { 's', 't', 'a', 'r', 't', 'x', 'r', 'e', 'f' };
constexpr std::array<std::uint8_t, 4> movieMark { 'm', 'o', 'o', 'v' };
constexpr std::array<std::uint8_t, 4> indexMark { 'i', 'd', 'x', '1' };
constexpr std::array<std::uint8_t, 4> cuesMark { 0x1C, 0x53, 0xBB, 0x6B };
constexpr std::array<std::uint8_t, 20> rootMark { 'R', 0, 'o', 0, 'o', 0, 't', 0, ' ', 0, 'E', 0,
    'n', 0, 't', 0, 'r', 0, 'y', 0 };
// The first entry of a TIFF directory is the picture's width, or the kind of picture in front of
// it.
constexpr std::array<std::uint8_t, 8> kindMark { 0xFE, 0, 4, 0, 1, 0, 0, 0 };
constexpr std::array<std::uint8_t, 8> shortWidthMark { 0, 1, 3, 0, 1, 0, 0, 0 };
constexpr std::array<std::uint8_t, 8> longWidthMark { 0, 1, 4, 0, 1, 0, 0, 0 };
constexpr std::array<std::uint8_t, 8> bigKindMark { 0, 0xFE, 0, 4, 0, 0, 0, 1 };
constexpr std::array<std::uint8_t, 8> bigShortWidthMark { 1, 0, 0, 3, 0, 0, 0, 1 };
constexpr std::array<std::uint8_t, 8> bigLongWidthMark { 1, 0, 0, 4, 0, 0, 0, 1 };

struct Mark {
    Anchor::Kind kind;
    ByteView bytes;
    std::uint64_t before; ///< how far in front of the mark its structure begins
};

constexpr Mark marks[] = {
    { Anchor::Kind::zipEnd, zipMark, 0 },
    { Anchor::Kind::pdfEnd, pdfMark, 0 },
    { Anchor::Kind::moov, movieMark, 4 },
    { Anchor::Kind::filmIndex, indexMark, 0 },
    { Anchor::Kind::cues, cuesMark, 0 },
    { Anchor::Kind::rootEntry, rootMark, 0 },
    { Anchor::Kind::directory, kindMark, 2 },
    { Anchor::Kind::directory, shortWidthMark, 2 },
    { Anchor::Kind::directory, longWidthMark, 2 },
    { Anchor::Kind::directory, bigKindMark, 2 },
    { Anchor::Kind::directory, bigShortWidthMark, 2 },
    { Anchor::Kind::directory, bigLongWidthMark, 2 },
};

/// The files that have such a structure.
Family familyWith(Anchor::Kind kind)
{
    switch (kind) {
    case Anchor::Kind::zipEnd:
        return Family::zip;
    case Anchor::Kind::pdfEnd:
        return Family::pdf;
    case Anchor::Kind::moov:
        return Family::isoMedia;
    case Anchor::Kind::filmIndex:
        return Family::avi;
    case Anchor::Kind::cues:
        return Family::matroska;
    case Anchor::Kind::sectorTable:
    case Anchor::Kind::rootEntry:
        return Family::compound;
    case Anchor::Kind::directory:
        return Family::tiff;
    }
    return Family::other;
}

std::optional<std::uint64_t> shiftBy(
    const Anchor& anchor, const std::vector<ByteRange>& pieces, ByteView head, BlockCache& cache)
{
    switch (anchor.kind) {
    case Anchor::Kind::zipEnd:
        return shiftByZIPEnd(cache, anchor.offset, head);
    case Anchor::Kind::pdfEnd:
        return shiftByPDFEnd(cache, anchor.offset);
    case Anchor::Kind::moov:
        return shiftByMovie(pieces, anchor.offset, cache);
    case Anchor::Kind::filmIndex:
        return shiftByFilmIndex(pieces, anchor.offset, cache);
    case Anchor::Kind::cues:
        return shiftByCues(anchor.offset, head);
    case Anchor::Kind::sectorTable:
        return shiftBySectorTable(cache, anchor.offset, head);
    case Anchor::Kind::rootEntry:
        return shiftByRootEntry(anchor.offset, head);
    case Anchor::Kind::directory:
        return shiftByDirectory(cache, anchor.offset, head);
    }
    return std::nullopt;
}

} // namespace

std::vector<Anchor> findAnchors(BlockCache& cache, const Space& space,
    std::span<const std::string_view> extensions, const WorkProgress* progress)
{
    constexpr std::size_t overlap = 32;
    constexpr std::int64_t sectorSize = 512;
    std::vector<Anchor> anchors;
    std::set<Family> families;
    for (const auto extension : extensions)
        families.insert(familyOf(extension));
    std::vector<Mark> wanted;
    std::ranges::copy_if(marks, std::back_inserter(wanted),
        [&](const Mark& mark) { return families.contains(familyWith(mark.kind)); });
    const bool areTablesWanted = families.contains(Family::compound);
    const auto add = [&](Anchor::Kind kind, std::uint64_t place) {
        if (!space.isHeld(place, true))
            anchors.push_back({ kind, place });
    };
    const auto size = cache.source().size();
    const auto most = std::max(mostRead, size / 4);
    std::uint64_t read = 0;
    for (std::uint64_t position = 0; position < size && (!wanted.empty() || areTablesWanted)
         && read < most && anchors.size() < mostAnchors && !isCancelled(progress);
         position += BlockCache::blockSize) {
        position = std::max(position,
            cache.source().nextData(position) / BlockCache::blockSize * BlockCache::blockSize);
        if (space.isAllHeld({ position, position + BlockCache::blockSize }))
            continue;
        const auto bytes = bytesAt(cache, position, BlockCache::blockSize + overlap);
        const ByteView block(bytes);
        read += bytes.size();
        for (const auto& mark : wanted)
            for (auto at = block.firstIndex(mark.bytes, 0);
                 at && static_cast<std::uint64_t>(*at) < BlockCache::blockSize;
                 at = block.firstIndex(mark.bytes, *at + 1))
                if (const auto place = position + static_cast<std::uint64_t>(*at);
                    place >= mark.before)
                    add(mark.kind, place - mark.before);
        for (std::int64_t at = 0; areTablesWanted && at < std::ssize(bytes); at += sectorSize)
            if (mayBeSectorTable(block.sub(at, sectorSize)))
                add(Anchor::Kind::sectorTable, position + static_cast<std::uint64_t>(at));
    }
    return anchors;
}

std::vector<std::uint64_t> shiftsFor(std::string_view extension,
    const std::vector<ByteRange>& pieces, std::span<const Anchor> anchors, BlockCache& cache)
{
    const auto head = bytesAt(cache, pieces.front().start, 1024);
    const auto family = familyOf(extension);
    std::vector<std::uint64_t> shifts;
    for (const auto& anchor : anchors) {
        if (familyWith(anchor.kind) != family || shifts.size() >= mostShifts)
            continue;
        const auto shift = shiftBy(anchor, pieces, head, cache);
        if (shift && *shift != pieces.front().start)
            shifts.push_back(*shift);
    }
    std::ranges::sort(shifts, {}, [&](std::uint64_t shift) {
        const auto start = pieces.front().start;
        return shift > start ? shift - start : start - shift;
    });
    shifts.erase(std::unique(shifts.begin(), shifts.end()), shifts.end());
    return shifts;
}

std::optional<KnownEnd> endFor(std::string_view extension, const std::vector<ByteRange>& pieces,
    std::span<const Anchor> anchors, BlockCache& cache)
{
    constexpr int mostTried = 64;
    const auto firmWith = [&](const std::optional<KnownEnd>& end) {
        PiecedBytes file(cache, pieces, end);
        file.growToEnd();
        const auto checker = Content::checkerFor(extension);
        checker->advance(file);
        return checker->finding().firm;
    };
    if (familyOf(extension) != Family::isoMedia)
        return std::nullopt;
    std::optional<KnownEnd> best;
    std::uint64_t mostFirm = 0;
    int tried = 0;
    for (const auto& anchor : anchors) {
        if (anchor.kind != Anchor::Kind::moov || ++tried > mostTried)
            continue;
        const auto shift = shiftByMovie(pieces, anchor.offset, cache);
        if (!shift)
            continue;
        if (!best)
            mostFirm = std::max(mostFirm, firmWith(std::nullopt));
        const KnownEnd end { anchor.offset - *shift, anchor.offset };
        if (const auto firm = firmWith(end); firm > mostFirm) {
            mostFirm = firm;
            best = end;
        }
    }
    return best;
}

} // namespace Fragments
