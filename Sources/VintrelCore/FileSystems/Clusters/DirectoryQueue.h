#pragma once

#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

/// What became of a directory. It decides what an entry in it is worth that bears no deletion mark.
enum class DirectoryState : std::uint8_t {
    live,
    deleted,
    fragment, ///< named by no other directory; what it lists may never have been deleted
};

/// A directory that is still to be read.
struct QueuedDirectory {
    FileNode* folder;
    std::uint32_t cluster; ///< the first one; 0: a fixed root directory
    DirectoryState state;
    int depth;                 ///< levels below the root
    std::uint64_t size = 0;    ///< in bytes; 0: not known
    bool isContiguous = false; ///< its entry says that it has no chain
    bool isSurveyed = false;   ///< found by its content, which need not be the beginning of one
    std::uint32_t parent = 0;  ///< the first cluster of the directory above; 0: the root
};

/// The directories that a walk has still to read. Those of the live tree come first, each folder's
/// content before what follows the folder, so that no deleted folder takes clusters from a live
/// one.
class DirectoryQueue {
public:
    void add(const QueuedDirectory& directory) { next_.push_back(directory); }

    /// Adds the subfolders of a directory, in the order in which it lists them. Those that are not
    /// live wait, but those of a directory that has waited itself do not wait again.
    void add(const std::vector<QueuedDirectory>& subfolders, DirectoryState parent)
    {
        for (auto subfolder = subfolders.rbegin(); subfolder != subfolders.rend(); ++subfolder)
            if (parent != DirectoryState::live || subfolder->state == DirectoryState::live)
                next_.push_back(*subfolder);
        for (const auto& subfolder : subfolders)
            if (parent == DirectoryState::live && subfolder.state != DirectoryState::live)
                waiting_.push_back(subfolder);
    }

    /// None at the end.
    std::optional<QueuedDirectory> take()
    {
        if (next_.empty() && !waiting_.empty()) {
            next_.push_back(waiting_.front());
            waiting_.pop_front();
        }
        if (next_.empty())
            return std::nullopt;
        const auto directory = next_.back();
        next_.pop_back();
        return directory;
    }

private:
    std::vector<QueuedDirectory> next_; // the last one is the next
    std::deque<QueuedDirectory> waiting_;
};
