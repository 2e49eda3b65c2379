#include "Tests/Fuzz/Support/DiskTarget.h"

#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Fuzz/Support/Recipe.h"

#include <algorithm>

extern "C" {

std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::uint64_t badBytes = 4096;
    const auto recipe = Recipe::decode({ data, size }, target.bases);
    const auto image = recipe.make();
    const auto source = Exercise::sourceOf(image, recipe.has(Recipe::hasLargeSectors) ? 4096 : 512);
    if (recipe.has(Recipe::hasBadSectors))
        source->addSimulatedBadRange(
            { recipe.badSector * 512ULL, recipe.badSector * 512ULL + badBytes });
    report(target.exercise(*source, image));
    if (recipe.has(Recipe::isRecovered))
        report(Exercise::recover(*source));
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(
    std::uint8_t* data, std::size_t size, std::size_t most, unsigned int seed)
{
    auto recipe = Recipe::decode({ data, size }, target.bases);
    mutate(recipe, seed, LLVMFuzzerMutate);
    const auto bytes = recipe.encode(target.bases);
    if (bytes.size() > most)
        return LLVMFuzzerMutate(data, size, most);
    std::ranges::copy(bytes, data);
    return bytes.size();
}
}
