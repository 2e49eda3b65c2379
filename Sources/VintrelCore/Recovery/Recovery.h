#pragma once

#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class DiskSource;

/// A file that was copied or listed, as it is told of.
struct RecoveredFile {
    const FileNode& node;
    bool isCopied = true;       ///< false: nothing was read of it
    std::string path;           ///< below the recovery folder
    std::uint64_t badBytes = 0; ///< unreadable ones, which are zeros now
    /// A file that does not exist any more, and of which nothing but zeros came out.
    bool isEmptied = false;

    /// The chance and the remark by what came out.
    Recoverability chance() const;
    std::string note() const;
};

struct RecoveryOptions {
    bool keepFolderStructure = true; ///< false: every file goes directly into the recovery folder
    bool restoreDates = true;
    bool onlyReport = false;   ///< write the report of what would be copied, and copy nothing
    bool writeReport = true;   ///< "Gendannelsesrapport.csv" in the recovery folder
    bool writePage = false;    ///< "Gendannet.html" in the recovery folder, a page to look at
    std::string pageDamage {}; ///< HTML: what the page tells of the source's damage; may be empty
    /// Hears of every file that was copied or listed; may be empty.
    std::function<void(const RecoveredFile&)> fileDone {};
    /// Whether resource forks and extended attributes are recovered, each file's and folder's in an
    /// AppleDouble file "._name" beside it, and named streams, each in a file "name.stream". Those
    /// count as files of their own everywhere.
    bool streams = false;
};

struct RecoveryProgress {
    std::int64_t filesDone = 0;
    std::int64_t filesTotal = 0;
    std::uint64_t bytesDone = 0;
    std::uint64_t bytesTotal = 0;
    std::string currentFile; ///< its path below the recovery folder
};

struct RecoveryResult {
    std::int64_t recovered = 0;  ///< files copied without any unreadable byte
    std::int64_t withErrors = 0; ///< files copied with zeros for at least one
    std::int64_t listed = 0;     ///< files that only the report tells of
    std::int64_t failed = 0;     ///< files that could not be created or written
    std::uint64_t bytes = 0;     ///< sum of the sizes of the files copied or listed
    bool cancelled = false;
    bool isDestinationFull = false;    ///< which ended the run
    std::optional<std::string> folder; ///< the recovery folder; none when it could not be made
    std::optional<std::string> page;   ///< where the page lies; none when there is none
    std::vector<std::string> failures; ///< a Danish line each, which begins with the file's path
};

/// Copies found files out of a source.
namespace RecoveryEngine {

using FileListener = decltype(RecoveryOptions::fileDone);
using Reporter = std::function<void(const RecoveryProgress&)>;

/// Makes a new folder named `rootName` below `destination` and copies the nodes into it, each once
/// and folders with all that they hold. Existing files go first, so that of two with one name the
/// intact one keeps it. Nothing that was there before is touched, and nothing is written outside
/// that folder, whatever the names say. The nodes' volumes must outlive the call.
RecoveryResult recover(std::span<FileNode* const> nodes, const std::string& rootName,
    DiskSource& source, const std::string& destination, const RecoveryOptions& options,
    const Reporter& reporter, const WorkProgress& progress);

} // namespace RecoveryEngine
