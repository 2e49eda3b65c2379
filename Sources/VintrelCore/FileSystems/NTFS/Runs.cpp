#include "VintrelCore/FileSystems/NTFS/Runs.h"

#include <algorithm>
#include <limits>

namespace {

/// Longer runs do not fit on any volume.
constexpr std::uint64_t runLimit = std::uint64_t { 1 } << 40;

/// The first byte of a run: how many bytes its length takes (low half), and how many its offset
/// (high half). An offset of no bytes makes the run sparse.
struct RunHeader {
    int lengthSize;
    int offsetSize;

    explicit RunHeader(std::uint8_t byte)
        : lengthSize(byte & 0x0F)
        , offsetSize(byte >> 4)
    {
    }
    /// False for the end mark 0 too.
    bool isPossible() const { return lengthSize >= 1 && lengthSize <= 8 && offsetSize <= 8; }
    std::int64_t size() const { return 1 + lengthSize + offsetSize; }
};

} // namespace

std::uint64_t clusterCount(const RunList& runs)
{
    std::uint64_t clusters = 0;
    for (const auto& run : runs)
        clusters += std::min(run.clusters, std::numeric_limits<std::uint64_t>::max() - clusters);
    return clusters;
}

RunList NTFSParser::decodeRuns(ByteView bytes)
{
    RunList runs;
    std::int64_t lcn = 0;
    for (std::int64_t at = 0;;) {
        const RunHeader header(bytes.u8(at)); // 0, the end mark, also past the end
        if (!header.isPossible() || at + header.size() > static_cast<std::int64_t>(bytes.size()))
            break;
        const auto clusters = bytes.uintLE(at + 1, header.lengthSize);
        if (clusters == 0 || clusters >= runLimit)
            break;
        if (header.offsetSize == 0) {
            runs.push_back({ std::nullopt, clusters });
        } else {
            // The LCN so far is not negative, so that only the sum's upper end can overflow.
            const auto delta = bytes.intLE(at + 1 + header.lengthSize, header.offsetSize);
            if (delta > std::numeric_limits<std::int64_t>::max() - lcn || lcn + delta < 0)
                break;
            lcn += delta;
            runs.push_back({ static_cast<std::uint64_t>(lcn), clusters });
        }
        at += header.size();
    }
    return runs;
}
