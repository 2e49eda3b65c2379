#pragma once

#include "Tests/Images/APFSImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"

#include <cstdint>
#include <utility>

using Leaf = APFSImage::Leaf;

/// What the parser makes of the container's first volume.
inline Parsed parse(const APFSImage& image, std::uint64_t base = 0, ByteRange unreadable = {})
{
    auto source = image.source();
    source->addSimulatedBadRange(unreadable);
    auto volumes = APFSParser::parse(*source, base, "prøve", nullptr);
    return { std::move(source), volumes.empty() ? nullptr : std::move(volumes[0]) };
}

/// The records of several things in one leaf.
inline Leaf operator+(Leaf one, const Leaf& other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

/// Breaks a block's checksum and nothing else.
inline void breakChecksum(APFSImage& image, std::uint64_t block)
{
    image.bytes()[image.offsetOf(block)] ^= 1;
}
