#include "VintrelCore/FileSystems/APFS/Objects.h"

#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <algorithm>
#include <array>

using namespace APFSFormat;

namespace APFSParser {

namespace {

constexpr std::uint64_t modulus = 0xFFFFFFFF;
constexpr std::size_t minObjectSize = 64;

/// After so many words the sums are taken modulo `modulus`. They could not overflow 64 bits before
/// 92,681 words.
constexpr std::size_t wordsPerRound = 65'536;

} // namespace

std::uint64_t fletcher64(ByteView object)
{
    std::uint64_t sum1 = 0;
    std::uint64_t sum2 = 0;
    auto words = object.span().subspan(std::min(sizeof(ObjectHeader::checksum), object.size()));
    while (words.size() >= 4) {
        const auto round = words.first(std::min(words.size() / 4, wordsPerRound) * 4);
        const auto whole = round.size() - round.size() % (4 * sizeof(std::uint32_t));
        for (std::size_t at = 0; at < whole; at += 4 * sizeof(std::uint32_t)) {
            // Most of a deep scan's time goes here: four words at once, as neither sum then waits
            // for the other after every word.
            std::array<LE32, 4> stored;
            std::memcpy(stored.data(), round.data() + at, sizeof(stored));
            const std::uint64_t word0 = stored[0], word1 = stored[1], word2 = stored[2],
                                word3 = stored[3];
            sum2 += 4 * (sum1 + word0) + 3 * word1 + 2 * word2 + word3;
            sum1 += word0 + word1 + word2 + word3;
        }
        for (std::size_t at = whole; at < round.size(); at += sizeof(std::uint32_t)) {
            LE32 word;
            std::memcpy(&word, round.data() + at, sizeof(word));
            sum1 += word;
            sum2 += sum1;
        }
        sum1 %= modulus;
        sum2 %= modulus;
        words = words.subspan(round.size());
    }
    const std::uint64_t check1 = modulus - (sum1 + sum2) % modulus;
    const std::uint64_t check2 = modulus - (sum1 + check1) % modulus;
    return check2 << 32 | check1;
}

bool checksumOK(ByteView object)
{
    const auto stored = object.u64le(offsetof(ObjectHeader, checksum));
    return object.size() >= minObjectSize && stored != 0 && stored == fletcher64(object);
}

bool looksLikeFSTreeLeaf(ByteView bytes, std::int64_t at, std::uint64_t blockSize)
{
    const auto node = bytes.load<NodeHeader>(at);
    if (!node || node->object.subtype != ObjectType::fileSystemTree)
        return false;
    const auto type = typeOf(node->object);
    const std::uint32_t keys = node->keyCount;
    if ((type != ObjectType::rootNode && type != ObjectType::node)
        || (node->flags & NodeFlag::leaf) == 0 || node->level != 0 || keys < 1 || keys > maxKeys)
        return false;
    const auto block = bytes.sub(
        at, static_cast<std::int64_t>(std::min<std::uint64_t>(blockSize, bytes.size())));
    return block.size() == blockSize && checksumOK(block);
}

} // namespace APFSParser
