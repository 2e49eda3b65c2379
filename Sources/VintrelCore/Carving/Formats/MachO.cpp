#include "VintrelCore/Carving/Formats/Programs.h"

#include <bit>
#include <cstddef>

// "OS X ABI Mach-O File Format Reference" (Apple): a header and load commands, some of which say
// where segments and symbols lie. A universal file has several for different machines.

namespace Formats {

namespace {

template <std::endian order> struct MachHeader {
    Stored<std::uint32_t, order> magic, machine, subtype; // 0, 4, 8
    Stored<std::uint32_t, order> type;                    // 12
    Stored<std::uint32_t, order> commandCount;            // 16
    Stored<std::uint32_t, order> commandsSize;            // 20
    Stored<std::uint32_t, order> flags;                   // 24  and four bytes where it is wide
};
static_assert(sizeof(MachHeader<std::endian::big>) == 28);

template <std::endian order> struct Command {
    Stored<std::uint32_t, order> type, size; // 0, 4
};

template <std::endian order> struct SymbolsCommand {
    Command<order> command;                                            // 0
    Stored<std::uint32_t, order> symbols, symbolCount, text, textSize; // 8, 12, 16, 20
};

/// `Word`: as wide as the addresses of the machine.
template <std::endian order, class Word> struct SegmentCommand {
    Command<order> command;                                //  0
    std::array<std::uint8_t, 16> name;                     //  8
    Stored<Word, order> address, memorySize, offset, size; // 24, …
};

constexpr std::uint32_t segmentCommand = 1, symbolsCommand = 2, wideSegmentCommand = 0x19;
constexpr std::uint32_t maxCommands = 65'536;

template <std::endian order>
void addCommand(
    RandomReader& file, std::uint64_t position, std::uint32_t type, ProgramExtent& extent)
{
    if (type == segmentCommand) {
        const auto segment = file.load<SegmentCommand<order, std::uint32_t>>(position);
        extent.add(segment.offset, segment.size);
    } else if (type == wideSegmentCommand) {
        const auto segment = file.load<SegmentCommand<order, std::uint64_t>>(position);
        extent.add(segment.offset, segment.size);
    } else if (type == symbolsCommand) {
        const auto table = file.load<SymbolsCommand<order>>(position);
        extent.add(table.text, table.textSize);
    }
}

template <std::endian order>
ProgramSize withHeader(const Candidate& candidate, std::uint64_t headerSize)
{
    const auto header = candidate.file.load<MachHeader<order>>(0);
    if (header.commandCount == 0 || header.commandCount > maxCommands)
        return std::nullopt;
    ProgramExtent extent(candidate);
    extent.add(headerSize, header.commandsSize);
    std::uint64_t position = headerSize;
    const std::uint64_t end = headerSize + header.commandsSize;
    for (std::uint32_t i = 0; i < header.commandCount && extent.size(); ++i) {
        const auto command = candidate.file.load<Command<order>>(position);
        if (command.size < sizeof command || position + command.size > end)
            return std::nullopt;
        addCommand<order>(candidate.file, position, command.type, extent);
        position += command.size;
    }
    return extent.size();
}

} // namespace

ProgramSize machO(const Candidate& candidate)
{
    constexpr std::uint64_t narrow = 28, wide = 32;
    switch (candidate.file.u32be(0)) {
    case 0xFEED'FACE:
        return withHeader<std::endian::big>(candidate, narrow);
    case 0xFEED'FACF:
        return withHeader<std::endian::big>(candidate, wide);
    case 0xCEFA'EDFE:
        return withHeader<std::endian::little>(candidate, narrow);
    case 0xCFFA'EDFE:
        return withHeader<std::endian::little>(candidate, wide);
    default:
        return std::nullopt;
    }
}

ProgramSize universalMachO(const Candidate& candidate)
{
    struct Part {
        BE32 machine, subtype, offset, size, alignment; // 0, 4, 8, 12, 16
    };
    constexpr std::uint32_t maxParts = 40; // classes of Java have 45 and more in this place
    constexpr std::uint64_t countOffset = 4, partsOffset = 8;
    const auto count = candidate.file.u32be(countOffset);
    if (count == 0 || count > maxParts)
        return std::nullopt;
    ProgramExtent extent(candidate);
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto part = candidate.file.load<Part>(partsOffset + i * sizeof(Part));
        if (part.offset < partsOffset + count * sizeof(Part) || part.size == 0)
            return std::nullopt;
        extent.add(part.offset, part.size);
    }
    return extent.size();
}

} // namespace Formats
