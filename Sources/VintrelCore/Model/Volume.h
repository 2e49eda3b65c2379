#pragma once

#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// What a parser keeps for the deep scan's follow-up work on its volume; only that parser looks
/// inside.
class DeepContext {
public:
    DeepContext() = default;
    DeepContext(const DeepContext&) = delete;
    DeepContext& operator=(const DeepContext&) = delete;
    virtual ~DeepContext() = default;
};

/// A file system, or what was found of one.
class Volume {
public:
    Volume(FileSystemType type, std::string label, std::uint64_t offset, std::uint64_t size,
        std::unique_ptr<FileNode> root, std::string origin);

    FileSystemType type;
    std::string label;              ///< may be empty
    std::uint64_t offset;           ///< on the source, in bytes
    std::uint64_t size;             ///< in bytes
    std::unique_ptr<FileNode> root; ///< a folder, never none
    std::vector<std::string> notes; ///< Danish remarks for the user
    std::string origin;             ///< where the volume came from, for example its partition
    std::uint64_t clusterSize = 0;  ///< allocation unit in bytes; 0 when there is none
    std::unique_ptr<DeepContext> deepContext; ///< none when the parser needs nothing later

    /// Unique in the process.
    std::int64_t id() const { return id_; }
    /// The label, or "Uden navn", and the type: "KAMERA (FAT32)".
    std::string title() const;

private:
    std::int64_t id_;
};

using VolumeList = std::vector<std::unique_ptr<Volume>>;

/// A list of the volume, or an empty one where there is none.
VolumeList oneOrNone(std::unique_ptr<Volume> volume);
