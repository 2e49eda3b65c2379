#pragma once

#include "VintrelCore/Foundation/FileDescriptor.h"

#include <string>
#include <string_view>

class Destination;

/// A text file directly in the recovery folder, which tells of what was recovered. Made before all
/// other files, it keeps its name; what is added is written at once, so that it is there also when
/// the run is killed. Room is reserved for what a full disk would not take. What cannot be written
/// is tried again with the next text and at the end.
class ReservedFile {
public:
    ReservedFile() = default;
    ReservedFile(const ReservedFile&) = delete;
    ReservedFile& operator=(const ReservedFile&) = delete;
    ~ReservedFile() { flush(); }

    /// Makes the file, named `stem` and `extension`. Until then, and where it could not be made,
    /// nothing is written.
    void create(Destination& destination, std::string_view stem, std::string_view extension);
    explicit operator bool() const { return static_cast<bool>(descriptor_); }
    void add(std::string_view text);

private:
    void flush();

    FileDescriptor descriptor_;
    FileDescriptor reserve_; // holds the room until the disk is full
    std::string pending_;    // not written yet
};
