#pragma once

#include "Tests/Images/NTFSImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// What the tests of the NTFS reader share.
namespace NTFSTestVolume {

using Image = NTFSImage;

constexpr auto root = Image::root;

/// Status, chance and note of a node in one text, for short expectations.
inline std::string fate(const FileNode& node)
{
    return std::string(label(node.status)) + ", " + chance(node);
}

inline Parsed parse(std::unique_ptr<DiskSource> source)
{
    auto volume = NTFSParser::parse(*source, 0, "prøve", nullptr);
    if (!volume)
        throw std::logic_error("no volume");
    return { std::move(source), std::move(volume) };
}

inline Parsed parse(const Image& image) { return parse(image.source()); }

inline Bytes firstOf(const Bytes& bytes, std::size_t count)
{
    return { bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count) };
}

/// A record with one name below the root, and these further attributes.
inline Image::Record named(
    std::u16string_view name, std::vector<Bytes> attributes, bool inUse = true)
{
    attributes.insert(
        attributes.begin(), { Image::standardInformation(), Image::fileName(root, name) });
    return { .inUse = inUse, .attributes = std::move(attributes) };
}

} // namespace NTFSTestVolume
