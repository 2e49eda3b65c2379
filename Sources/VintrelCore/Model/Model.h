#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

enum class FileSystemType { fat12, fat16, fat32, exfat, ntfs, hfsplus, apfs, ext, carved, unknown };

inline constexpr std::array allFileSystemTypes { FileSystemType::fat12, FileSystemType::fat16,
    FileSystemType::fat32, FileSystemType::exfat, FileSystemType::ntfs, FileSystemType::hfsplus,
    FileSystemType::apfs, FileSystemType::ext, FileSystemType::carved, FileSystemType::unknown };

/// The short name used in listings: "FAT32", "ext2/3/4", "Ukendt" …
std::string_view displayName(FileSystemType type);

/// What became of a file. `orphaned`: known to its file system, but its folder is not. `carved`:
/// found by content alone.
enum class EntryStatus { existing, deleted, orphaned, carved };

std::string_view label(EntryStatus status);

/// The chance that a file's bytes are still its own, in rising order.
enum class Recoverability { unknown, poor, partial, good };

std::string_view label(Recoverability recoverability);

enum class FileCategory { image, video, audio, document, archive, other };

inline constexpr std::array allFileCategories { FileCategory::image, FileCategory::video,
    FileCategory::audio, FileCategory::document, FileCategory::archive, FileCategory::other };

std::string_view identifier(FileCategory category);
std::string_view label(FileCategory category);
/// The name of an icon that stands for the category.
std::string_view symbol(FileCategory category);
/// The category of a file by its name's extension; `other` for one that is not in the table.
FileCategory categoryOf(std::string_view fileName);

/// The text after the last dot, with ASCII letters in lower case; empty when there is none.
std::string fileExtension(std::string_view fileName);

/// A piece of a file, in bytes on the source.
struct Extent {
    std::optional<std::uint64_t>
        offset; ///< none: a hole, or a piece whose place is unknown; reads as zeros
    std::uint64_t length = 0;

    bool operator==(const Extent&) const = default;
};

using ExtentList = std::vector<Extent>;

/// Where the clusters of an NTFS-compressed stream lie. A compression unit with fewer physical
/// clusters than it has virtual ones is compressed.
struct CompressedRuns {
    struct Run {
        std::optional<std::uint64_t> lcn; ///< none: sparse
        std::uint64_t clusters = 0;

        bool operator==(const Run&) const = default;
    };

    std::vector<Run> runs;
    std::uint64_t clusterSize = 0;  ///< in bytes
    std::uint64_t unitClusters = 0; ///< clusters in a compression unit
    std::uint64_t volumeOffset = 0; ///< of the volume on the source, in bytes
    std::optional<std::uint64_t>
        initializedSize {}; ///< bytes of the content; those from here on are zeros. None: all

    bool operator==(const CompressedRuns&) const = default;
};

struct NoData {
    bool operator==(const NoData&) const = default;
};

/// Where a file's content lies: nowhere that is known, in these very bytes (content kept inside
/// metadata), in extents in file order, or in compressed runs.
using FileData = std::variant<NoData, Bytes, ExtentList, CompressedRuns>;

/// What a subtree holds, its top not counted.
struct Totals {
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    std::uint64_t bytes = 0;   ///< sum of the files' sizes
    std::uint64_t deleted = 0; ///< files that are anything but existing; folders never count

    bool operator==(const Totals&) const = default;
};

/// A file or folder. A node owns its children; their number and depth are the disk's, so nothing
/// here recurses.
class FileNode {
public:
    using Children = std::vector<std::unique_ptr<FileNode>>;

    static std::unique_ptr<FileNode> makeFile(std::string name, std::uint64_t size,
        EntryStatus status, Recoverability recoverability = Recoverability::unknown,
        FileData data = {});
    static std::unique_ptr<FileNode> makeFolder(std::string name, EntryStatus status);

    FileNode(const FileNode&) = delete;
    FileNode& operator=(const FileNode&) = delete;
    ~FileNode();

    std::string name;
    std::uint64_t size = 0; ///< logical size in bytes; 0 for folders
    std::optional<Date> created;
    std::optional<Date> modified;
    EntryStatus status;
    Recoverability recoverability;
    FileData data;
    std::optional<std::string> note; ///< a Danish remark for the user
    std::uint64_t fsID
        = 0; ///< the file system's own number (cluster, record, object); 0 when it has none

    /// Unique in the process, counted from 1 in the order of creation.
    std::int64_t id() const { return id_; }
    bool isDirectory() const { return isDirectory_; }
    /// None for a root.
    FileNode* parent() const { return parent_; }
    const Children& children() const { return children_; }

    /// Appends a child. Nothing is sorted, and names may repeat.
    FileNode& add(std::unique_ptr<FileNode> child);
    void removeAllChildren() { children_.clear(); }
    /// Adds a remark; remarks that meet are joined with "; ".
    void addNote(std::string_view text);
    /// Gives a deleted file its chance by what became of its blocks, and says so: whether the first
    /// one, or any of them (the first one counts), belongs to another file by now.
    void judgeByReuse(bool isFirstReused, bool isAnyReused);
    /// Sorts the whole subtree: folders first, then by name without regard to case and with numbers
    /// by value (IMG_2 before IMG_10). Equal names: by status, then by the names' bytes, then in
    /// the order of creation.
    void sortChildren();

    /// "/" and the names from below the root down to this node; "/" for a root.
    std::string path() const;
    /// The direct children that are files, or folders, in their order.
    std::vector<FileNode*> files() const;
    std::vector<FileNode*> folders() const;
    /// Every file below this node, each folder's content before what follows the folder.
    std::vector<FileNode*> allFiles() const;
    Totals totals() const;
    FileCategory category() const { return categoryOf(name); }
    std::string fileExtension() const { return ::fileExtension(name); }

    /// Calls `visit(node, depth)` for every node below this one, a folder before its content;
    /// children have depth 1.
    template <class Visit> void forEachDescendant(Visit visit) const
    {
        struct Position {
            const FileNode* folder;
            std::size_t next;
        };
        std::vector<Position> open { { this, 0 } };
        while (!open.empty()) {
            auto& [folder, next] = open.back();
            if (next == folder->children_.size()) {
                open.pop_back();
                continue;
            }
            FileNode& node = *folder->children_[next++];
            visit(node, open.size());
            if (!node.children_.empty())
                open.push_back({ &node, 0 });
        }
    }

private:
    FileNode(std::string name, bool isDirectory, std::uint64_t size, EntryStatus status,
        Recoverability recoverability, FileData data);

    std::int64_t id_;
    FileNode* parent_ = nullptr; // not owning: a parent outlives its children
    Children children_;
    bool isDirectory_;
};

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

/// The thread that works reports here and asks whether it should stop; any thread, and a signal
/// handler, may cancel.
class WorkProgress {
public:
    /// `fraction` is 0 when unknown and at most 1; the message is Danish and ends in " …".
    using Handler = std::function<void(double fraction, const std::string& message)>;

    WorkProgress() = default;
    explicit WorkProgress(Handler handler)
        : handler_(std::move(handler))
    {
    }

    void report(double fraction, const std::string& message) const;
    void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }

private:
    static_assert(std::atomic<bool>::is_always_lock_free, "cancel() is called by signal handlers");
    std::atomic<bool> cancelled_ = false;
    mutable std::mutex lock_; // guards the call of handler_
    Handler handler_;
};

/// Whether work that may have been given no progress object should stop.
inline bool isCancelled(const WorkProgress* progress)
{
    return progress != nullptr && progress->isCancelled();
}

/// A byte count in decimal units: "1 byte", "999 bytes", "12 KB", "3.4 MB", "1.25 GB". Counts above
/// the largest signed 64-bit value are shown as that. The decimal separator is the environment's.
std::string formatBytes(std::uint64_t count);
std::string formatBytes(std::uint64_t count, std::string_view decimalSeparator);
