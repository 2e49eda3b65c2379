#pragma once

#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// The extended attributes of a volume's files and folders, also those in nodes that the attributes
/// file gave up. It keeps the records in memory. Used by one thread at a time.
class HFSPlusAttributes {
public:
    /// Content that lies in blocks of its own.
    struct Fork {
        std::uint64_t size = 0; ///< in bytes
        HFSPlusExtents extents {};
    };

    struct Attribute {
        std::string name;
        std::variant<Bytes, Fork> content;
    };

    /// Without any attributes where the volume has no such file, or none that can be read.
    HFSPlusAttributes(const HFSPlusForks& forks, const HFSPlusFormat::VolumeHeader& header);

    /// What a file or folder has, each name once. `isLive`: what exists has nothing that lies in a
    /// node that was given up.
    std::vector<Attribute> attributesOf(std::uint32_t fileID, bool isLive) const;
    /// The content of an attribute that lies in its record; none where there is no such one.
    std::optional<Bytes> content(std::uint32_t fileID, bool isLive, std::string_view name) const;

    const HFSPlusTreeHealth& health() const { return health_; }
    /// Whether the file is longer than what is read of it, or holds more than is kept.
    bool isCapped() const { return isCapped_; }

private:
    struct Entry {
        std::uint32_t fileID = 0;
        std::uint32_t node = 0; ///< in which the record lies
        std::uint64_t at = 0;   ///< the record, its key included, among those that are kept
        std::uint16_t length = 0;
        HFSPlusBTree::Use use = HFSPlusBTree::Use::givenUp; ///< of its node
    };

    void add(ByteView record, std::uint32_t node);
    std::span<const Entry> entriesOf(std::uint32_t fileID, bool isLive) const;
    ByteView recordOf(const Entry& entry) const;

    HFSPlusTreeHealth health_;
    bool isCapped_ = false;
    Bytes records_;
    std::vector<Entry> entries_; // by file, those of live nodes first
};
