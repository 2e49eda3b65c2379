#pragma once

#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/FileReader.h"

#include <cstdint>
#include <vector>

/// What macOS keeps beside a file's content, as one file that any file system can hold. The format
/// is AppleDouble, version 2 (RFC 1740, appendix B), with the Finder information and the resource
/// fork; behind the former lie the extended attributes, as macOS writes them there and reads them
/// back. Used by one thread.
class AppleDouble {
public:
    /// The attachments must outlive it. Left out are attributes that the format cannot hold: those
    /// whose names have more than 254 bytes, and what lies beyond its 4 GiB.
    explicit AppleDouble(const Attachments& attachments);

    /// Whether there is anything to put into such a file.
    static bool isFor(const Attachments& attachments);

    std::uint64_t size() const { return size_; } ///< of the file, in bytes
    /// The lowest chance of what is in it; at most partial where something is left out.
    Recoverability recoverability() const { return recoverability_; }
    /// The file's content, from its beginning to its end. They point into this object.
    std::vector<FileReader::Content> parts() const;

private:
    void choose(const Attachments& attachments);
    void write();

    const Attachment* finderInfo_ = nullptr;
    const Attachment* fork_ = nullptr;
    std::vector<const Attachment*> attributes_;
    FileData head_; // all that comes before the contents of the attributes
    std::uint64_t forkSize_ = 0;
    std::uint64_t size_ = 0;
    Recoverability recoverability_ = Recoverability::good;
};
