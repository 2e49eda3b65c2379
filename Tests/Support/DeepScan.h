#pragma once

#include "Tests/Support/TestSource.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Scanning/FullScan.h"

#include <algorithm>
#include <map>
#include <string>

/// Everything that a deep scan lists of a source but carved files, path by path: one content for
/// each file there.
struct Found {
    explicit Found(DiskSource& source, bool carve = false)
    {
        DeepScanOptions options;
        options.carve = carve;
        volumes = FullScan::run(source, options, nullptr);
        std::erase_if(
            volumes, [](const auto& volume) { return volume->type == FileSystemType::carved; });
        for (const auto& volume : volumes)
            for (const auto* file : volume->root->allFiles())
                files.emplace(file->path(), FileReader::readPrefix(*file, source, 1_MiB));
    }
    explicit Found(const Bytes& bytes, bool carve = false)
        : Found(*makeSource(bytes), carve)
    {
    }

    /// How many files have a path that ends so, and this content; those with another content spoil
    /// it.
    int count(const std::string& pathEnd, const Bytes& content) const
    {
        int count = 0;
        for (const auto& [path, bytes] : files)
            if (path.ends_with(pathEnd))
                count += bytes == content ? 1 : 100;
        return count;
    }

    VolumeList volumes;
    std::multimap<std::string, Bytes> files;
};

inline const std::string fragments = "/$Tabte mappefragmenter";

inline void erase(Bytes& bytes, std::uint64_t from, std::uint64_t to)
{
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(from),
        bytes.begin() + static_cast<std::ptrdiff_t>(to), std::uint8_t { 0 });
}
