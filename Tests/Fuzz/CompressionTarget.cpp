// Everything that unpacks. The first byte names the method, two more the size that is hoped for.

#include "Tests/Fuzz/Support/Finding.h"
#include "VintrelCore/Foundation/Compression/Compression.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"
#include "VintrelCore/Foundation/Compression/WindowsFormats.h"
#include "VintrelCore/Foundation/Decmpfs.h"
#include "VintrelCore/Foundation/WOF.h"
#include "VintrelCore/Recovery/LZNT1.h"

namespace {

void expectSize(const std::optional<Bytes>& unpacked, std::size_t size)
{
    expect(!unpacked || unpacked->size() == size, "what unpacks has the size that was asked for");
}

/// Content behind its attribute, or behind the table of a fork.
void unpackDecmpfs(ByteView bytes)
{
    const auto header = Decmpfs::decode(bytes);
    if (!header)
        return;
    const auto packed = bytes.sub(Decmpfs::headerSize, INT64_MAX);
    if (!header->isInFork) {
        if (header->size <= 1 << 20)
            expectSize(Decmpfs::unpack(header->method, packed, header->size), header->size);
        return;
    }
    const auto read = [&](std::uint64_t offset, std::uint64_t length) {
        const auto part
            = packed.sub(static_cast<std::int64_t>(offset), static_cast<std::int64_t>(length));
        return Bytes(part.span().begin(), part.span().end());
    };
    // A table may name what lies behind the fork: then fewer bytes are read.
    for (const auto& block : Decmpfs::blocksOf(*header, packed.size(), read)) {
        expectSize(
            Decmpfs::unpack(header->method, read(block.offset, block.length), Decmpfs::blockSize),
            Decmpfs::blockSize);
    }
}

void unpackWOF(ByteView bytes, std::size_t size)
{
    const auto method = static_cast<WOF::Method>(bytes.u8(0) % 4);
    const auto stream = bytes.sub(1, INT64_MAX);
    const auto read = [&](std::uint64_t offset, std::uint64_t length) {
        const auto part
            = stream.sub(static_cast<std::int64_t>(offset), static_cast<std::int64_t>(length));
        return Bytes(part.span().begin(), part.span().end());
    };
    for (const auto& chunk : WOF::chunksOf(method, size, stream.size(), read))
        expectSize(WOF::unpack(method, read(chunk.offset, chunk.length), WOF::chunkSize(method)),
            WOF::chunkSize(method));
}

/// In small pieces, and on in a copy from where the original stands.
void inflate(ByteView bytes, std::size_t size)
{
    constexpr std::size_t slice = 100;
    Compression::Inflater first(static_cast<Compression::Inflater::Wrapping>(bytes.u8(0) % 3));
    Bytes to(size + 1);
    auto rest = bytes.span().subspan(bytes.empty() ? 0 : 1);
    for (int round = 0; round < 1000 && !rest.empty(); ++round) {
        Compression::Inflater copy(first);
        const auto from = rest.first(std::min(slice, rest.size()));
        const auto other = copy.unpack(from, to);
        const auto progress = first.unpack(from, to);
        expect(progress.consumed == other.consumed && progress.produced == other.produced
                && progress.state == other.state,
            "a copy unpacks as its original does");
        expect(progress.consumed <= from.size() && progress.produced <= to.size(),
            "no more is unpacked than there is");
        if (progress.state != Compression::Inflater::State::open)
            return;
        rest = rest.subspan(progress.consumed);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const ByteView input(std::span(data, size));
    const std::size_t hoped = input.u16le(1);
    const auto packed = input.sub(3, INT64_MAX);
    Bytes room(hoped);
    switch (input.u8(0) % 8) {
    case 0:
        expectSize(FileReader::lznt1Decompress(packed, hoped), hoped);
        break;
    case 1:
        expectSize(Compression::unpackXpressHuffman(packed, hoped), hoped);
        break;
    case 2:
        expectSize(Compression::unpackLZX(packed, hoped % 0x8001), hoped % 0x8001);
        break;
    case 3:
        unpackDecmpfs(packed);
        break;
    case 4:
        unpackWOF(packed, hoped);
        break;
    case 5:
        inflate(packed, hoped);
        break;
    case 6:
        expect(Compression::unpackZlib(packed.span(), room).value_or(0) <= hoped,
            "no more is unpacked than there is room");
        break;
    default:
        WOF::methodIn(packed);
        Decmpfs::sizeIn(packed);
    }
    return 0;
}
