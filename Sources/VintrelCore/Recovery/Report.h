#pragma once

#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Recovery/ReservedFile.h"

#include <cstddef>
#include <string>
#include <string_view>

class Destination;
struct RecoveredFile;

/// The report "Gendannelsesrapport.csv". A row is written when its file is done.
class RecoveryReport {
public:
    /// Without `isWanted` nothing is made and nothing written.
    RecoveryReport(Destination& destination, bool isWanted);

    /// Adds the row of a file that was copied or listed.
    void add(const RecoveredFile& file);

private:
    ReservedFile file_;
};

/// The list "Fejl.txt" of all that failed, a line each, where that is more than a screen shows. Its
/// file is made with the first line too many.
class FailureList {
public:
    /// Without `isWanted` nothing is made and nothing written. `shown`: how many lines the user
    /// sees in any case. The destination must outlive the list.
    FailureList(Destination& destination, bool isWanted, std::size_t shown);
    FailureList(const FailureList&) = delete;
    FailureList& operator=(const FailureList&) = delete;
    ~FailureList();

    void add(std::string_view line);

private:
    Destination& destination_;
    const bool isWanted_;
    const std::size_t shown_;
    std::size_t count_ = 0;
    FileDescriptor descriptor_;
    std::string lines_; // not written yet
};
