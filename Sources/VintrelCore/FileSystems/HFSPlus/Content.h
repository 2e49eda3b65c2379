#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Attributes.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>

/// Gives files their content and their chance, and files and folders what is attached to them. The
/// forks and attributes must outlive it. Used by one thread at a time.
class HFSPlusContent {
public:
    HFSPlusContent(const HFSPlusForks& forks, const HFSPlusAttributes& attributes)
        : forks_(forks)
        , attributes_(attributes)
    {
    }

    /// Whose content it is: for a hard link that of its iNode file.
    struct Owner {
        std::uint32_t id = 0;
        bool isLive = false; ///< whether what has it exists
    };

    /// Fills in the size, the content and the chance of a file.
    void fill(FileNode& node, const HFSPlusFormat::CatalogFile& file, const Owner& owner);
    /// Attaches the resource fork of a file that was filled in, and notes that it has one.
    void attachFork(FileNode& node, const HFSPlusFormat::CatalogFile& file, const Owner& owner);
    /// Attaches the extended attributes of a file or folder, with the Finder's information.
    void attachAttributes(FileNode& node, ByteView finderInfo, const Owner& owner);

    /// Whether attributes were left out because there were too many.
    bool isFull() const { return isFull_; }

private:
    /// Where a fork lies, up to its size, and what there is to doubt of it.
    struct Layout {
        ExtentList extents;
        Doubts doubts;
    };

    Layout layOut(const HFSPlusFormat::ForkData& fork, HFSPlusFormat::Fork kind, std::uint64_t size,
        const Owner& owner) const;
    ExtentList piecesOf(const HFSPlusExtents& stored, std::uint64_t size, bool& isWhole) const;
    Doubts doubtsOfDeleted(const HFSPlusExtents& stored, std::uint64_t size) const;
    void attachCompressed(
        FileNode& node, const HFSPlusFormat::CatalogFile& file, const Owner& owner);
    Attachment attachmentFor(HFSPlusAttributes::Attribute attribute) const;
    void attach(FileNode& node, Attachment attachment);

    const HFSPlusForks& forks_;
    const HFSPlusAttributes& attributes_;
    std::uint64_t attachedBytes_ = 0; ///< of memory, about
    bool isFull_ = false;
};
