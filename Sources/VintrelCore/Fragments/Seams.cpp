#include "VintrelCore/Fragments/Seams.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>

namespace Fragments {

namespace {

constexpr std::uint64_t looked = 512;
constexpr std::size_t bins = 32;

/// How often bytes of each size occur in the bytes at `offset`, which are not more than `looked`.
std::array<int, bins> histogram(BlockCache& cache, std::uint64_t offset)
{
    std::array<int, bins> counts {};
    const auto bytes = cache.from(offset);
    for (const auto byte : bytes.span().first(std::min<std::size_t>(looked, bytes.size())))
        ++counts[byte * bins / 256];
    return counts;
}

} // namespace

void Seams::take(const std::vector<ByteRange>& pieces)
{
    for (const auto& [start, end] : pieces)
        taken_.add(start, end);
}

bool Seams::isTaken(const std::vector<ByteRange>& pieces) const
{
    return std::ranges::any_of(
        pieces, [&](const ByteRange& piece) { return taken_.intersects(piece.start, piece.end); });
}

bool Seams::isOthers(std::uint64_t offset) const
{
    return space_.isHeld(offset, true) || taken_.contains(offset);
}

/// 0 where both sectors have the same bytes, up to 1.
double Seams::difference(std::uint64_t left, std::uint64_t right) const
{
    const auto one = histogram(cache_, left);
    const auto other = histogram(cache_, right);
    int sum = 0;
    for (std::size_t i = 0; i < bins; ++i)
        sum += std::abs(one[i] - other[i]);
    return static_cast<double>(sum) / (2.0 * looked);
}

double Seams::likelihood(const std::vector<ByteRange>& pieces) const
{
    constexpr double sure = 2; // another file's own tells more than how bytes look
    double sum = 0;
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        const auto end = pieces[i - 1].end;
        const auto start = pieces[i].start;
        if (end < looked || start < looked)
            continue;
        const bool endsAtOther = isOthers(end) || beginnings_.contains(end);
        sum += endsAtOther ? sure : difference(end - looked, end);
        sum += isOthers(start - 1) ? sure : difference(start - looked, start);
        sum -= difference(end - looked, start);
    }
    return pieces.size() > 1 ? sum / static_cast<double>(pieces.size() - 1) : 0;
}

} // namespace Fragments
