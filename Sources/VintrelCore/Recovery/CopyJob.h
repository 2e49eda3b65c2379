#pragma once

#include "VintrelCore/Recovery/Destination.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Recovery/FileWriter.h"
#include "VintrelCore/Recovery/Page.h"
#include "VintrelCore/Recovery/Recovery.h"
#include "VintrelCore/Recovery/Report.h"

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace RecoveryEngine {

/// Copies files into a recovery folder that stands already. What it is given stays alive as long as
/// the job. Used by one thread.
class CopyJob {
public:
    CopyJob(DiskSource& source, FileDescriptor root, const RecoveryOptions& options,
        const Reporter& reporter, const WorkProgress& progress, RecoveryResult& result);

    /// Makes the page. To be called before anything is copied, so that no file takes its name.
    void openPage(std::string_view title);

    /// `nodes`: files and, for what is attached to them, folders.
    void copy(const std::vector<FileNode*>& nodes);

private:
    /// A file to be made.
    struct Output {
        const FileNode& node; ///< whose size, dates and chance it has
        std::vector<FileReader::Content> parts;
    };
    struct Copied {
        std::uint64_t badBytes = 0; ///< unreadable ones, which are zeros now
        bool isAllZero = true;
        SystemError error; ///< why writing ended early
    };
    enum class Step { copied, failed, ended };

    void flushDestination();
    bool hasCompanion(const FileNode& node) const;
    std::vector<const Attachment*> streamsOf(const FileNode& node) const;
    std::int64_t filesFor(const FileNode& node) const;
    bool copyFile(const FileNode& node);
    Step copyPacked(const FileNode& node, const Attachment& packed, Destination::Folder& folder,
        std::string& name);
    bool copyFolder(const FileNode& node);
    bool copyCompanion(const FileNode& node, Destination::Folder& folder, const std::string& name);
    bool copyStreams(const FileNode& node, Destination::Folder& folder, const std::string& name);
    Step copyInto(Destination::Folder& folder, std::string& name, const Output& output);
    static std::uint64_t streamedLength(const Output& output);
    std::uint64_t storedLength(const Output& output) const;
    void count(const FileNode& node, const std::string& path, const Copied& copied);
    void list(const FileNode& node);
    void tell(const RecoveredFile& file);
    Copied copyOrRemove(const Output& output, FileWriter writer, Destination::Folder& folder,
        const std::string& name);
    Copied copyContent(const Output& output, FileWriter writer, const std::string& path);
    Step fail(const Destination::Folder& folder, const std::string& name, const char* what,
        SystemError error);
    Step failForSize(const FileNode& node, const Destination::Folder& folder,
        const std::string& name, std::uint64_t room);
    void addFailure(std::string line);
    void reportProgress(const std::string& path);

    DiskSource& source_;
    const RecoveryOptions& options_;
    const Reporter& reporter_;
    const WorkProgress& progress_;
    RecoveryResult& result_;
    Destination destination_;
    FailureList failureList_; // its last lines are written when the report has freed its room
    RecoveryReport report_;
    RecoveryPage page_;
    RecoveryProgress state_;
    std::chrono::steady_clock::time_point lastReport_ {};
};

} // namespace RecoveryEngine
