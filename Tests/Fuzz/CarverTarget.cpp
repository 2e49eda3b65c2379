// A file found by its content: raw bytes behind a sector of something else.

#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Support/Exercise.h"
#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Scanning/DeepScan.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t place = 1024, behind = 4096;
    constexpr std::int64_t headSize = 64; // as the deep scan has them
    Bytes bytes(place, 0x11);
    bytes.insert(bytes.end(), data, data + size);
    bytes.insert(bytes.end(), behind, 0x11);
    const auto source = Exercise::sourceOf(bytes);
    std::vector<CarvedFile> finds;
    std::vector<BrokenHead> heads;
    Carver carver(*source, carvedCategories());
    carver.noteBrokenHeads(heads);
    carver.findTexts();
    for (std::size_t offset = 0; offset + 512 <= bytes.size(); offset += 512) {
        const auto head = ByteView(bytes).sub(static_cast<std::int64_t>(offset), headSize);
        if (auto found = carver.check(head, offset))
            finds.push_back(std::move(*found));
        else
            carver.beginsProgram(head, offset);
    }
    for (const auto& find : finds)
        expect(find.size > 0 && find.offset < bytes.size()
                && (!find.exact || find.size <= bytes.size() - find.offset),
            "a find lies on the source");
    expect(source->bytesRead() <= 512 * bytes.size() + (1 << 20), "carving reads with an end");
    VolumeList volumes;
    volumes.push_back(DeepScanner::carvedVolume(*source, finds));
    report(Exercise::readBack(*source, volumes));
    report(Exercise::print(*source, volumes));
    return 0;
}
