#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Recovery/FileReader.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

/// A volume with what it was read from.
struct Parsed {
    std::unique_ptr<DiskSource> source;
    std::unique_ptr<Volume> volume;

    const FileNode& operator[](std::string_view path) const
    {
        const FileNode* found = nullptr;
        volume->root->forEachDescendant([&](const FileNode& node, std::size_t) {
            if (node.path() == path)
                found = &node;
        });
        if (found == nullptr)
            throw std::logic_error("no " + std::string(path) + " among" + names());
        return *found;
    }

    /// Every path, in the order of the tree.
    std::string names() const
    {
        std::string names;
        volume->root->forEachDescendant(
            [&](const FileNode& node, std::size_t) { names += " " + node.path(); });
        return names;
    }

    Bytes content(std::string_view path) const
    {
        return FileReader::readPrefix((*this)[path], *source, 64 << 20);
    }
};

/// The chance and note of a node in one text, for short expectations.
inline std::string chance(const FileNode& node)
{
    return std::string(label(node.recoverability)) + (node.note ? ": " + *node.note : "");
}
