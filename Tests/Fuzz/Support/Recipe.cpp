#include "Tests/Fuzz/Support/Recipe.h"

#include "Tests/Fuzz/Support/Checksums.h"

#include <algorithm>
#include <random>

namespace {

constexpr std::size_t headerSize = 6, patchHeaderSize = 6;
constexpr std::size_t grain = 32; ///< so many bytes are one place
constexpr std::size_t mostPatches = 2000;

void add(Bytes& bytes, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

bool isEmpty(std::span<const std::uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// Numbers that parsers stumble over.
constexpr std::uint64_t numbers[] = { 0, 1, 2, 3, 5, 7, 8, 15, 16, 31, 32, 47, 48, 63, 64, 127, 128,
    255, 256, 511, 512, 1023, 1024, 4095, 4096, 0x7FFF, 0x8000, 0xFFFF, 0x1'0000, 0x7FFF'FFFF,
    0x8000'0000, 0xFFFF'FFFE, 0xFFFF'FFFF, 1ULL << 40, 1ULL << 52, 1ULL << 55, 1ULL << 62,
    1ULL << 63, ~0ULL - 1, ~0ULL };

} // namespace

Recipe Recipe::decode(std::span<const std::uint8_t> bytes, std::span<const Bases::Number> bases)
{
    const ByteView view(bytes);
    Recipe recipe;
    recipe.base = bases[view.u8(0) % bases.size()];
    recipe.flags = view.u8(1);
    recipe.sectors = view.u16le(2);
    recipe.badSector = view.u16le(4);
    for (std::size_t at = headerSize; at + patchHeaderSize < bytes.size();) {
        const auto place = static_cast<std::int64_t>(at);
        at += patchHeaderSize;
        const auto length = std::min<std::size_t>(view.u16le(place + 4), bytes.size() - at);
        const auto content = bytes.subspan(at, length);
        recipe.patches.push_back({ view.u32le(place), { content.begin(), content.end() } });
        at += length;
    }
    return recipe;
}

Bytes Recipe::encode(std::span<const Bases::Number> bases) const
{
    const auto place = std::ranges::find(bases, base) - bases.begin();
    Bytes bytes { static_cast<std::uint8_t>(place), flags };
    add(bytes, sectors, 2);
    add(bytes, badSector, 2);
    for (const auto& patch : patches) {
        add(bytes, patch.offset, 4);
        add(bytes, patch.bytes.size(), 2);
        bytes.insert(bytes.end(), patch.bytes.begin(), patch.bytes.end());
    }
    return bytes;
}

Bytes Recipe::make() const
{
    const auto& [sound, renew] = Bases::get(base);
    Bytes image = sound.empty()
        ? Bytes(std::size_t { std::clamp<std::uint32_t>(sectors, 1, mostSectors) } * 512)
        : sound;
    for (const auto& [offset, bytes] : patches)
        for (std::size_t i = 0; i < bytes.size() && offset + i < image.size(); ++i)
            image[offset + i] = bytes[i];
    if (has(renewsChecksums)) {
        Checksums::renew(image);
        if (renew)
            renew(image);
    }
    if (has(isCut))
        image.resize(std::clamp<std::size_t>(std::size_t { sectors } * 512, 512, image.size()));
    return image;
}

void Recipe::put(std::uint64_t offset, const Bytes& bytes)
{
    for (auto& patch : patches)
        if (patch.offset <= offset && offset + bytes.size() <= patch.end()) {
            std::ranges::copy(
                bytes, patch.bytes.begin() + static_cast<std::ptrdiff_t>(offset - patch.offset));
            return;
        }
    if (patches.size() < mostPatches)
        patches.push_back({ static_cast<std::uint32_t>(offset), bytes });
}

Recipe Recipe::describing(const Bytes& image)
{
    constexpr std::size_t longest = 0xFFFF / grain * grain;
    Recipe recipe;
    recipe.sectors = static_cast<std::uint16_t>(image.size() / 512);
    for (std::size_t at = 0; at < image.size(); at += grain) {
        const auto part = std::span(image).subspan(at, std::min(grain, image.size() - at));
        if (isEmpty(part))
            continue;
        auto& patches = recipe.patches;
        if (patches.empty() || patches.back().end() != at || patches.back().bytes.size() >= longest)
            patches.push_back({ static_cast<std::uint32_t>(at), {} });
        patches.back().bytes.insert(patches.back().bytes.end(), part.begin(), part.end());
    }
    return recipe;
}

void mutate(Recipe& recipe, std::uint32_t seed, const MutateBytes& mutateBytes)
{
    std::minstd_rand random(seed);
    const auto below = [&](std::size_t count) { return count == 0 ? 0 : random() % count; };
    const auto plain = [&] {
        auto copy = recipe;
        copy.flags = 0;
        return copy.make();
    }();
    std::vector<std::size_t> places;
    for (std::size_t at = 0; at + grain <= plain.size(); at += grain)
        if (!isEmpty(std::span(plain).subspan(at, grain)))
            places.push_back(at);
    // Most changes lie close to what earlier ones of this recipe were about.
    const auto hotPlace = [&]() -> std::size_t {
        if (!recipe.patches.empty() && recipe.base != Bases::blank && below(2) == 0)
            return recipe.patches[below(recipe.patches.size())].offset % plain.size() / 2 * 2;
        return (places.empty() ? 0 : places[below(places.size())]) + below(grain);
    };
    const auto part = [&](std::size_t at, std::size_t count) {
        const auto from = std::min(at, plain.size() - 1);
        const auto view = std::span(plain).subspan(from, std::min(count, plain.size() - from));
        return Bytes(view.begin(), view.end());
    };
    const auto setNumber = [&] {
        const auto width = std::size_t { 1 } << below(4);
        const auto at = hotPlace() / width * width;
        std::uint64_t value = numbers[below(std::size(numbers))];
        if (below(3) == 0) {
            value = 0;
            const auto old = part(at, width);
            for (std::size_t i = 0; i < old.size(); ++i)
                value |= std::uint64_t { old[i] } << 8 * i;
            value += below(2) == 0 ? below(16) - 8 : value;
        }
        Bytes bytes;
        add(bytes, value, static_cast<int>(width));
        if (below(4) == 0)
            std::ranges::reverse(bytes);
        recipe.put(at, bytes);
    };
    const auto change = [&] {
        auto at = hotPlace();
        auto bytes = part(at, std::size_t { 1 } << below(7));
        bytes.resize(mutateBytes(bytes.data(), bytes.size(), bytes.size()));
        recipe.put(at, bytes);
    };
    for (auto count = 1 + below(3); count > 0; --count)
        switch (below(12)) {
        case 0:
            recipe.flags = static_cast<std::uint8_t>(recipe.flags ^ 1U << below(5));
            break;
        case 1:
            recipe.badSector = static_cast<std::uint16_t>(hotPlace() / 512);
            recipe.flags |= Recipe::hasBadSectors;
            break;
        case 2:
            if (recipe.base != Bases::blank && !recipe.patches.empty())
                recipe.patches.erase(recipe.patches.begin()
                    + static_cast<std::ptrdiff_t>(below(recipe.patches.size())));
            break;
        case 3:
            recipe.put(
                hotPlace() / grain * grain, part(hotPlace() / grain * grain, grain << below(5)));
            break;
        case 4:
        case 5:
        case 6:
            change();
            break;
        default:
            setNumber();
        }
}
