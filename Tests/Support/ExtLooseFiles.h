// What the tests of files share that only loose blocks of ext volumes tell of.
#pragma once

#include "Tests/Images/ExtImage.h"
#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/DeepScan.h"

#include <numeric>

using Blocks = std::vector<std::uint32_t>;
constexpr std::uint64_t block = ExtImage::blockSize;

inline Blocks range(std::uint32_t first, std::uint32_t count)
{
    Blocks blocks(count);
    std::iota(blocks.begin(), blocks.end(), first);
    return blocks;
}

inline Blocks with(Blocks blocks, const Blocks& more)
{
    blocks.insert(blocks.end(), more.begin(), more.end());
    return blocks;
}

inline void putContent(ExtImage& image, const Blocks& blocks, const Bytes& content)
{
    for (std::size_t index = 0; index < blocks.size(); ++index)
        for (std::size_t at = index * block; at < std::min(content.size(), (index + 1) * block);
             ++at)
            image.bytes()[ExtImage::offsetOf(blocks[index]) + at % block] = content[at];
}

/// A sound whose head says how long it is.
inline Bytes sound(std::size_t size)
{
    auto bytes
        = joined({ bytesOf("RIFF....WAVEfmt ................data...."), patternBytes(size) });
    bytes.resize(size);
    store<std::uint32_t>(bytes, 4, static_cast<std::uint32_t>(size - 8));
    store<std::uint32_t>(bytes, 16, 16);
    store<std::uint16_t>(bytes, 20, 1);
    store<std::uint32_t>(bytes, 40, static_cast<std::uint32_t>(size - 44));
    return bytes;
}

/// The one file that loose lists tell of; none when there is none.
inline const FileNode* looseFile(const Found& found)
{
    for (const auto& volume : found.volumes)
        for (const auto* file : volume->root->allFiles())
            if (file->path().starts_with("/$Filer fra bloklister/"))
                return file;
    return nullptr;
}
