#pragma once

#include "VintrelCore/Foundation/FileDescriptor.h"

#include <cstdint>
#include <string>

class Destination;
class FileNode;

/// The report "Gendannelsesrapport.csv", written row by row, so that it is there also when the run
/// is killed. Its file is made before all others, which keeps its name free for it. What cannot be
/// written, on a full disk, is tried once more at the end.
class RecoveryReport {
public:
    /// Without `isWanted` nothing is made and nothing written.
    RecoveryReport(Destination& destination, bool isWanted);
    RecoveryReport(const RecoveryReport&) = delete;
    RecoveryReport& operator=(const RecoveryReport&) = delete;
    ~RecoveryReport();

    /// Adds the row of a file that was copied. `path`: below the recovery folder.
    void add(const std::string& path, const FileNode& node, std::uint64_t badBytes);

private:
    void flush();

    FileDescriptor descriptor_;
    std::string rows_; // not written yet
};
