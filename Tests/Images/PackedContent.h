#pragma once

#include "Tests/Images/DiskImage.h"

#include <string>
#include <vector>

/// Content as macOS compresses it.
namespace PackedContent {

inline void addLE(Bytes& bytes, std::uint64_t value, int width)
{
    bytes.resize(bytes.size() + static_cast<std::size_t>(width));
    putLE(bytes, bytes.size() - static_cast<std::size_t>(width), value, width);
}

inline void add(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

/// Content behind the byte that says that nothing packed it.
inline Bytes marked(std::uint8_t marker, const Bytes& content)
{
    return joined({ Bytes { marker }, content });
}

/// The attribute of a compressed file.
inline std::string header(std::uint32_t type, std::uint64_t size, const Bytes& packed = {})
{
    Bytes bytes = bytesOf("fpmc");
    addLE(bytes, type, 4);
    addLE(bytes, size, 8);
    add(bytes, packed);
    return { bytes.begin(), bytes.end() };
}

/// A resource fork with a table of the blocks in front.
inline Bytes plainFork(const std::vector<Bytes>& blocks)
{
    Bytes fork;
    std::uint64_t at = 4 * (blocks.size() + 1);
    addLE(fork, at, 4);
    for (const auto& block : blocks)
        addLE(fork, at += block.size(), 4);
    for (const auto& block : blocks)
        add(fork, block);
    return fork;
}

} // namespace PackedContent
