#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Recovery/FileReader.h"

#include <memory>
#include <optional>
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

/// What is attached to a node: names, and what is text of each piece of the contents.
inline std::string attachments(const Parsed& disk, std::string_view path)
{
    std::string text;
    const auto& node = disk[path];
    for (const auto& attachment : node.attachments ? *node.attachments : Attachments()) {
        text += attachment.kind == Attachment::Kind::resourceFork ? "gren" : attachment.name;
        text += "=";
        const auto add = [&](const FileReader::Piece& piece) {
            text += ByteView(piece.bytes).ascii(0, 20) + std::string(piece.holeLength, '0');
            return true;
        };
        FileReader::stream(
            { attachment.data, attachment.size }, *disk.source, 4096, std::nullopt, add);
        text += ";";
    }
    return text;
}

/// What a file that is listed without its content unpacks to; empty for all others.
inline Bytes unpackedContent(const Parsed& disk, std::string_view path)
{
    Bytes content;
    if (const auto* packed = packedContentOf(disk[path]))
        FileReader::stream({ packed->data, packed->size }, *disk.source, 4096, std::nullopt,
            [&](const FileReader::Piece& piece) {
                content.insert(content.end(), piece.bytes.begin(), piece.bytes.end());
                content.resize(content.size() + piece.holeLength);
                return true;
            });
    return content;
}
