#pragma once

#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/SystemResult.h"
#include "VintrelCore/Recovery/FileReader.h"

class FileNode;

/// Writes one new file from its beginning to its end. Holes are left out of it, where the file
/// system can.
class FileWriter {
public:
    explicit FileWriter(FileDescriptor descriptor);

    /// Whether holes take no room on the file system. Asked of a file that is still empty.
    bool keepsHoles() const;

    SystemError write(const FileReader::Piece& piece);

    /// Gives the file its length and, if wanted, the node's dates, and closes it.
    SystemError finish(const FileNode& node, bool restoreDates);

private:
    FileDescriptor descriptor_;
    std::uint64_t position_ = 0;
    bool endsInHole_ = false;
};
