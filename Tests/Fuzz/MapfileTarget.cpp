// Mapfiles, of a source whose size comes first.

#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Imaging/DamagePicture.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t cells = 100;
    constexpr std::size_t filedShare = 64; ///< one size in so many goes to a file and back
    if (size < 8)
        return 0;
    const auto sourceSize = ByteView(std::span(data, 8)).u64le(0);
    const auto map
        = RangeMap::parse({ reinterpret_cast<const char*>(data) + 8, size - 8 }, sourceSize);
    if (!map)
        return 0;
    std::uint64_t end = 0;
    for (const auto& block : map->snapshot()) {
        expect(block.position == end && block.size > 0, "a mapfile parses to a map without gaps");
        end = block.end();
    }
    expect(end == sourceSize, "a map ends where its source does");
    const auto again = RangeMap::parse(map->mapfile(0, 1), sourceSize);
    expect(sourceSize == 0 || (again && again->snapshot() == map->snapshot()),
        "the text of a map gives the same map");
    expect(map->cells(cells).size() == (sourceSize == 0 ? 0 : cells), "a picture has its cells");
    DamagePicture::section(*map);
    if (size % filedShare == 0) {
        static const TemporaryFolder folder;
        const auto path = folder / "map";
        expect(!map->write(path, 0, 1), "a map can be saved");
        const auto saved = RangeMap::readWhole(path, sourceSize);
        expect(sourceSize == 0 || (saved && saved->snapshot() == map->snapshot()),
            "a saved map is the same map");
    }
    return 0;
}
