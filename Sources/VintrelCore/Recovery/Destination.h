#pragma once

#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/SystemResult.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>

class FileNode;

/// The recovery folder and what has been made in it. Everything is opened relative to the
/// descriptor of its parent and never through a link, so that nothing that somebody plants there
/// leads out of it. Used by one thread.
class Destination {
public:
    /// A folder that this run made. It knows its parent and not its path, so that no text grows
    /// with the depth of the tree.
    struct Folder {
        Folder* parent = nullptr; ///< none for the recovery folder itself
        std::size_t level = 0;    ///< how many folders lie above it
        std::string name;         ///< as written
        SystemError error;        ///< why it could not be made; nothing can be put into it then
        std::unordered_map<std::string, Folder*> folders; ///< by the name that was wanted
        /// The numbering of a wanted name, so that equal names stay linear.
        struct Numbering {
            int last = 0;
            bool isSharing = false; ///< with names that differ in case only
        };
        std::unordered_map<std::string, Numbering> lastNumber;
        /// The number given last for any of the names that differ in case only.
        std::unordered_map<std::string, int> lastFoldedNumber;
    };

    /// `root`: the recovery folder, open.
    explicit Destination(FileDescriptor root);

    /// Makes the folder at `path`, or where that is taken at the same path with a number, and what
    /// is missing above it. A name that the file system refuses is made portable first. `path`
    /// becomes the one that it got. Nobody else may read it.
    static SystemResult<FileDescriptor> makeRoot(std::string& path);

    Folder& root() { return folders_.front(); }

    /// The folder for the children of `node`, made as it is needed; the recovery folder for none.
    Folder& folderFor(const FileNode* node);

    /// Makes a new file in a folder. `name` is the one that is wanted, and afterwards the one that
    /// it got: numbered where it was taken, and portable where the file system refused it.
    SystemResult<FileDescriptor> createFile(Folder& folder, std::string& name);

    void remove(Folder& folder, const std::string& name);

    /// Waits until everything on the destination's file system is safe on its disk.
    SystemError flush() const;

    /// The bytes that can still be written; none where the file system does not tell.
    std::optional<std::uint64_t> freeBytes() const;

    /// Where a file in a folder lies below the recovery folder.
    static std::string path(const Folder& folder, const std::string& name);

private:
    Folder& subfolder(Folder& parent, const std::string& wanted);
    template <class Create>
    auto createNamed(Folder& folder, std::string& name, bool isDirectory, Create create)
        -> SystemResult<decltype(create(0, ""))>;
    template <class Create>
    auto createNumbered(Folder& folder, std::string& name, bool isDirectory, std::size_t maxBytes,
        Create create) -> SystemResult<decltype(create(0, ""))>;
    int descriptor() const;
    SystemError open(Folder& folder);

    struct OpenFolder {
        const Folder* folder;
        FileDescriptor descriptor;
    };
    const OpenFolder* findOpen(const Folder& folder) const;

    FileDescriptor root_;
    std::deque<Folder> folders_; // the first one is the recovery folder; addresses stay
    std::unordered_map<const FileNode*, Folder*> folderOfNode_;
    /// The folder that files are made in, the last one, and the nearest ones above it, so that
    /// going to its neighbours does not begin at the top. Empty while it is the recovery folder.
    std::deque<OpenFolder> open_;
};
