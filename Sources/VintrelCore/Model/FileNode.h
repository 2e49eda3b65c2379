#pragma once

#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/SmallOptionals.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What became of a file. `orphaned`: known to its file system, but its folder is not. `carved`:
/// found by content alone.
enum class EntryStatus : std::uint8_t { existing, deleted, orphaned, carved };

std::string_view label(EntryStatus status);

/// The chance that a file's bytes are still its own, in rising order.
enum class Recoverability : std::uint8_t { unknown, poor, partial, good };

std::string_view label(Recoverability recoverability);

/// What a file or folder has beside its content.
struct Attachment {
    enum class Kind : std::uint8_t {
        resourceFork,
        attribute,     ///< an extended attribute of macOS
        packedContent, ///< the file's own, where the file itself is listed without it
        stream,        ///< a named content of its own (NTFS)
    };

    Kind kind {};
    Recoverability recoverability = Recoverability::good;
    std::string name; ///< of an attribute or a stream
    FileData data;
    std::uint64_t size = 0; ///< in bytes
};
using Attachments = std::vector<Attachment>;

class FileNode;
/// The content of a file that is listed without it; none for all others.
const Attachment* packedContentOf(const FileNode& node);

/// A file for a stream of another file, with the dates and the status of that. It has no content;
/// that stays with the stream.
std::unique_ptr<FileNode> makeStreamFile(
    const FileNode& owner, const Attachment& stream, std::string name);

/// What a subtree holds, its top not counted.
struct Totals {
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    std::uint64_t bytes = 0;   ///< sum of the files' sizes
    std::uint64_t deleted = 0; ///< files that are anything but existing; folders never count

    bool operator==(const Totals&) const = default;
};

/// A file or folder. A node owns its children; their number and depth are the disk's, so nothing
/// here recurses. A tree may have millions of nodes, so that each of them is kept small. Used by
/// one thread at a time, also where only const functions are called.
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
    OptionalDate created;
    OptionalDate modified;
    FileData data;
    OptionalText note; ///< a Danish remark for the user
    std::uint64_t fsID
        = 0; ///< the file system's own number (cluster, record, object); 0 when it has none
    std::unique_ptr<Attachments> attachments; ///< none when there are none, as nearly always
    EntryStatus status;
    Recoverability recoverability;

    /// Unique in the process, counted from 1 in the order of creation.
    std::int64_t id() const { return static_cast<std::int64_t>(id_); }
    bool isDirectory() const { return isDirectory_ != 0; }
    /// None for a root.
    FileNode* parent() const { return parent_; }
    const Children& children() const
    {
        if (isUnsorted_)
            sortNow();
        return children_ ? *children_ : noChildren;
    }

    /// Appends a child. Nothing is sorted, and names may repeat.
    FileNode& add(std::unique_ptr<FileNode> child);
    void removeAllChildren();
    /// Removes the direct children that `isUnwanted`, with all that they hold.
    template <class Predicate> void removeChildren(Predicate isUnwanted)
    {
        if (children_)
            std::erase_if(*children_, [&](const auto& child) { return isUnwanted(*child); });
    }
    void attach(Attachment attachment);
    /// Adds a remark; remarks that meet are joined with "; ".
    void addNote(std::string_view text);
    /// Sorts the whole subtree: folders first, then by name without regard to case and with numbers
    /// by value (IMG_2 before IMG_10). Equal names: by status, then by the names' bytes, then in
    /// the order of creation. The work is done folder by folder when its children are asked for; a
    /// name or a status that changes before that counts. What is added later stands behind.
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
            const Children* children;
            std::size_t next;
        };
        std::vector<Position> open { { &children(), 0 } };
        while (!open.empty()) {
            auto& [children, next] = open.back();
            if (next == children->size()) {
                open.pop_back();
                continue;
            }
            FileNode& node = *(*children)[next++];
            visit(node, open.size());
            if (node.children_)
                open.push_back({ &node.children(), 0 });
        }
    }

    /// Calls `visit(node)` for every node below this one in any order: folders that nobody has
    /// asked for stay unsorted. `visit` leaves names, status and the tree as they are.
    template <class Visit> void forEachUnordered(Visit visit) const
    {
        std::vector<const FileNode*> folders { this };
        while (!folders.empty()) {
            const auto* const folder = folders.back();
            folders.pop_back();
            if (!folder->children_)
                continue;
            for (const auto& child : *folder->children_) {
                visit(*child);
                if (child->children_)
                    folders.push_back(child.get());
            }
        }
    }

private:
    FileNode(std::string name, bool isDirectory, std::uint64_t size, EntryStatus status,
        Recoverability recoverability, FileData data);

    void sortNow() const;

    static const Children noChildren;

    // Together with the two members above these take one word.
    std::uint64_t id_ : 46;
    std::uint64_t isDirectory_ : 1;
    mutable std::uint64_t isUnsorted_ : 1 = 0; // its children wait to be sorted
    FileNode* parent_ = nullptr;               // not owning: a parent outlives its children
    std::unique_ptr<Children> children_;       // none when there are none, as for every file
};
