#include "VintrelCore/Content/JPEGFrame.h"

#include <algorithm>
#include <numeric>

namespace Content::JPEG {

std::optional<HuffmanTable> HuffmanTable::from(ByteView counts, ByteView symbols)
{
    HuffmanTable table;
    table.symbols_.assign(symbols.span().begin(), symbols.span().end());
    std::uint32_t code = 0; // as the first 16 bits, so that it grows from length to length
    std::uint16_t symbol = 0;
    for (unsigned length = 1; length <= 16; ++length) {
        const std::uint32_t step = 1U << (16 - length);
        table.firstOfLength_[length] = code;
        table.firstSymbol_[length] = symbol;
        for (int count = counts.u8(length - 1); count > 0; --count, ++symbol, code += step) {
            if (code + step > 0x10000 || symbol >= symbols.size())
                return std::nullopt;
            if (length > shortBits)
                continue;
            const Code found { static_cast<std::uint8_t>(length), table.symbols_[symbol] };
            const auto first = table.short_.begin() + (code >> (16 - shortBits));
            std::fill_n(first, step >> (16 - shortBits), found);
        }
        table.endOfLength_[length] = code;
    }
    return table;
}

HuffmanTable::Code HuffmanTable::findLong(std::uint16_t bits) const
{
    for (unsigned length = shortBits + 1; length <= 16; ++length)
        if (bits < endOfLength_[length] && bits >= firstOfLength_[length]) {
            const auto number = (bits - firstOfLength_[length]) >> (16 - length);
            return { static_cast<std::uint8_t>(length), symbols_[firstSymbol_[length] + number] };
        }
    return {};
}

std::optional<Frame> Frame::from(ByteView segment, std::uint8_t marker)
{
    Frame frame;
    frame.kind = marker;
    frame.height = segment.u16be(1);
    frame.width = segment.u16be(3);
    const unsigned count = segment.u8(5);
    const bool isKnown
        = marker == baselineFrame || marker == extendedFrame || marker == progressiveFrame;
    const int precision = segment.u8(0);
    // Twelve bits a sample exist on paper and in hospitals.
    if (!isKnown || precision != 8 || frame.width == 0 || frame.height == 0 || count == 0
        || count > 4 || segment.size() != 6 + std::size_t { 3 } * count)
        return std::nullopt;
    for (unsigned i = 0; i < count; ++i) {
        const auto at = 6 + 3 * i;
        const auto factors = segment.u8(at + 1);
        const Component component { .id = segment.u8(at),
            .across = static_cast<std::uint8_t>(factors >> 4),
            .down = static_cast<std::uint8_t>(factors & 15),
            .quantiser = segment.u8(at + 2) };
        if (component.across == 0 || component.across > 4 || component.down == 0
            || component.down > 4 || component.quantiser > 3)
            return std::nullopt;
        frame.mostAcross = std::max(frame.mostAcross, component.across);
        frame.mostDown = std::max(frame.mostDown, component.down);
        frame.components.push_back(component);
    }
    return frame;
}

bool Settings::take(std::uint8_t marker, ByteView segment)
{
    if (marker == huffmanTables)
        return takeHuffmanTables(segment);
    if (marker == quantisationTables)
        return takeQuantisers(segment);
    if (marker == restartDefinition && segment.size() == 2) {
        restartInterval = segment.u16be(0);
        return true;
    }
    const bool isFrame = marker >= baselineFrame && marker <= lastFrame && marker != reserved
        && marker != arithmeticConditioning;
    if (isFrame) {
        const auto read = Frame::from(segment, marker);
        if (!read || frame)
            return false;
        frame = std::make_shared<const Frame>(*read);
        return true;
    }
    return marker >= app0;
}

bool Settings::takeHuffmanTables(ByteView segment)
{
    for (std::size_t at = 0; at < segment.size();) {
        const auto kind = segment.u8(static_cast<std::int64_t>(at));
        const auto counts = segment.sub(static_cast<std::int64_t>(at) + 1, 16);
        const auto total
            = std::accumulate(counts.span().begin(), counts.span().end(), std::size_t { 0 });
        const auto symbols
            = segment.sub(static_cast<std::int64_t>(at) + 17, static_cast<std::int64_t>(total));
        const auto table = HuffmanTable::from(counts, symbols);
        if ((kind & 0xEC) != 0 || counts.size() != 16 || symbols.size() != total || total > 256
            || !table)
            return false;
        auto& tables = (kind & 0x10) != 0 ? acTables : dcTables;
        tables[kind & 3] = std::make_shared<const HuffmanTable>(*table);
        at += 17 + total;
    }
    return true;
}

bool Settings::takeQuantisers(ByteView segment)
{
    for (std::size_t at = 0; at < segment.size();) {
        const auto kind = segment.u8(static_cast<std::int64_t>(at));
        const bool isWide = (kind & 0x10) != 0;
        const std::size_t length = isWide ? 129 : 65;
        if ((kind & 0xEC) != 0 || at + length > segment.size())
            return false;
        const auto first = static_cast<std::int64_t>(at) + 1;
        dcSteps[kind & 3] = isWide ? segment.u16be(first) : segment.u8(first);
        if (dcSteps[kind & 3] == 0)
            return false;
        at += length;
    }
    return true;
}

namespace {

std::uint32_t divideUp(std::uint32_t value, std::uint32_t by) { return (value + by - 1) / by; }

/// How many units of a scan there are. With one component a unit is one block, and blocks that
/// only fill up the units of the whole picture are left out (A.2.2).
void countUnits(Scan& scan, const Frame& frame)
{
    std::uint32_t across = divideUp(frame.width, 8U * frame.mostAcross);
    std::uint32_t down = divideUp(frame.height, 8U * frame.mostDown);
    if (scan.components.size() == 1) {
        const auto& component = frame.components[scan.components[0].index];
        across = divideUp(
            divideUp(std::uint32_t { frame.width } * component.across, frame.mostAcross), 8);
        down = divideUp(
            divideUp(std::uint32_t { frame.height } * component.down, frame.mostDown), 8);
        scan.components[0].blocks = 1;
    }
    scan.unitsAcross = across;
    scan.units = std::uint64_t { across } * down;
}

std::optional<ScanKind> kindOf(const Scan& scan, std::uint8_t earlierShift, const Frame& frame)
{
    if (!frame.isProgressive())
        return ScanKind::wholeBlocks;
    if (scan.lastCoefficient > 63 || scan.firstCoefficient > scan.lastCoefficient
        || scan.shift > 13)
        return std::nullopt;
    if (scan.firstCoefficient == 0)
        return scan.lastCoefficient != 0 ? std::nullopt
            : earlierShift == 0          ? std::optional(ScanKind::firstDC)
                                         : std::optional(ScanKind::moreDC);
    if (scan.components.size() != 1)
        return std::nullopt;
    return earlierShift == 0 ? ScanKind::firstAC : ScanKind::moreAC;
}

bool hasTables(const Scan& scan)
{
    return std::ranges::all_of(scan.components, [&](const ScanComponent& component) {
        const bool needsDC = scan.kind == ScanKind::wholeBlocks || scan.kind == ScanKind::firstDC;
        const bool needsAC = scan.kind != ScanKind::firstDC && scan.kind != ScanKind::moreDC;
        return (!needsDC || component.dc) && (!needsAC || component.ac);
    });
}

} // namespace

std::optional<Scan> Scan::from(ByteView segment, const Settings& settings)
{
    const unsigned count = segment.u8(0);
    if (!settings.frame || count == 0 || count > 4
        || segment.size() != 4 + std::size_t { 2 } * count)
        return std::nullopt;
    const auto& frame = *settings.frame;
    Scan scan;
    for (unsigned i = 0; i < count; ++i) {
        const auto id = segment.u8(1 + 2 * i);
        const auto tables = segment.u8(2 + 2 * i);
        const auto found = std::ranges::find(frame.components, id, &Component::id);
        if (found == frame.components.end() || (tables & 0xCC) != 0)
            return std::nullopt;
        scan.components.push_back(
            { .index = static_cast<std::uint8_t>(found - frame.components.begin()),
                .blocks = std::uint32_t { found->across } * found->down,
                .dcStep = settings.dcSteps[found->quantiser],
                .dc = settings.dcTables[tables >> 4],
                .ac = settings.acTables[tables & 3] });
    }
    const auto last = 1 + 2 * count;
    scan.firstCoefficient = segment.u8(last);
    scan.lastCoefficient = segment.u8(last + 1);
    scan.shift = segment.u8(last + 2) & 15;
    const auto kind = kindOf(scan, segment.u8(last + 2) >> 4, frame);
    if (!kind)
        return std::nullopt;
    scan.kind = *kind;
    if (scan.kind == ScanKind::wholeBlocks) {
        scan.firstCoefficient = 0;
        scan.lastCoefficient = 63;
        scan.shift = 0;
    }
    countUnits(scan, frame);
    scan.restartInterval = settings.restartInterval;
    return hasTables(scan) ? std::optional(scan) : std::nullopt;
}

} // namespace Content::JPEG
