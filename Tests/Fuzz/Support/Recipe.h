#pragma once

#include "Tests/Fuzz/Support/Bases.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

/// What a fuzzer keeps of a disk image: which builder makes it, what is changed, and how it is
/// damaged besides. Small, and every string of bytes is one.
struct Recipe {
    struct Patch {
        std::uint32_t offset = 0;
        Bytes bytes;

        std::uint64_t end() const { return offset + std::uint64_t { bytes.size() }; }
    };
    enum Flag : std::uint8_t {
        renewsChecksums = 1, ///< after the patches
        isCut = 2,           ///< the source ends at `sectors`
        hasBadSectors = 4,   ///< some from `badSector` on cannot be read
        hasLargeSectors = 8,
        isRecovered = 16, ///< the files are copied too
    };

    static constexpr std::uint32_t mostSectors = 16'384;

    Bases::Number base = Bases::blank; ///< that one: `sectors` of zeros
    std::uint8_t flags = 0;
    std::uint16_t sectors = 0;
    std::uint16_t badSector = 0;
    std::vector<Patch> patches {};

    bool has(Flag flag) const { return (flags & flag) != 0; }

    /// In bytes a base is its place among those that a target uses.
    static Recipe decode(std::span<const std::uint8_t> bytes, std::span<const Bases::Number> bases);
    Bytes encode(std::span<const Bases::Number> bases) const;

    /// The image.
    Bytes make() const;
    /// Writes bytes into a patch that has their place already, or as a new one.
    void put(std::uint64_t offset, const Bytes& bytes);
    /// All of an image that is not zero.
    static Recipe describing(const Bytes& image);
};

/// A change of a recipe at places where structures are. `mutate` changes bytes in place and returns
/// how many there are then.
using MutateBytes
    = std::function<std::size_t(std::uint8_t* bytes, std::size_t count, std::size_t most)>;
void mutate(Recipe& recipe, std::uint32_t seed, const MutateBytes& mutateBytes);
