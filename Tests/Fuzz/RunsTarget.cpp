// Run lists of NTFS.

#include "Tests/Fuzz/Support/Finding.h"
#include "VintrelCore/FileSystems/NTFS/Runs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto runs = NTFSParser::decodeRuns(std::span(data, size));
    expect(runs.size() <= size / 2, "each run comes from bytes of its own");
    std::uint64_t sum = 0;
    for (const auto& run : runs)
        sum = sum + run.clusters < sum ? UINT64_MAX : sum + run.clusters;
    expect(clusterCount(runs) == sum, "the clusters of a list are those of its runs");
    return 0;
}
