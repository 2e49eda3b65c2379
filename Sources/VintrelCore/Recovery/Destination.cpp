#include "VintrelCore/Recovery/Destination.h"

#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/SafeName.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int openFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int createNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

} // namespace

Destination::Destination(FileDescriptor root)
    : root_(std::move(root))
    , current_(&folders_.emplace_back())
{
}

SystemResult<FileDescriptor> Destination::makeRoot(std::string& path)
{
    const std::string wanted = path;
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(wanted).parent_path(), error);
    if (error)
        return SystemError(error.value());
    do {
        path = RecoveryEngine::uniquePath(wanted, true);
        if (::mkdir(path.c_str(), 0777) == 0) {
            FileDescriptor root(::open(path.c_str(), openFolder));
            if (!root)
                return SystemError::last();
            return root;
        }
    } while (errno == EEXIST); // somebody was faster
    return SystemError::last();
}

Destination::Folder& Destination::folderFor(const FileNode* node)
{
    std::vector<const FileNode*> missing;
    Folder* folder = &folders_.front();
    for (; node != nullptr && node->parent() != nullptr; node = node->parent()) {
        if (const auto known = folderOfNode_.find(node); known != folderOfNode_.end()) {
            folder = known->second;
            break;
        }
        missing.push_back(node);
    }
    for (auto next = missing.rbegin(); next != missing.rend(); ++next) {
        folder = &subfolder(*folder, RecoveryEngine::sanitize((*next)->name));
        folderOfNode_.emplace(*next, folder);
    }
    return *folder;
}

SystemResult<FileDescriptor> Destination::createFile(Folder& folder, std::string& name)
{
    return createNumbered(folder, name, false, [](int parent, const char* candidate) {
        return FileDescriptor(::openat(parent, candidate, createNew, 0666));
    });
}

void Destination::remove(Folder& folder, const std::string& name)
{
    if (!open(folder))
        ::unlinkat(descriptor(), name.c_str(), 0);
}

std::string Destination::path(const Folder& folder, const std::string& name)
{
    std::vector<const Folder*> chain;
    for (const auto* part = &folder; part->parent != nullptr; part = part->parent)
        chain.push_back(part);
    std::string path;
    for (auto part = chain.rbegin(); part != chain.rend(); ++part)
        path.append((*part)->name).append("/");
    return path + name;
}

Destination::Folder& Destination::subfolder(Folder& parent, const std::string& wanted)
{
    if (const auto known = parent.folders.find(wanted); known != parent.folders.end())
        return *known->second;
    Folder& folder = folders_.emplace_back();
    folder.parent = &parent;
    folder.name = wanted;
    parent.folders.emplace(wanted, &folder);
    folder.error
        = createNumbered(parent, folder.name, true, [](int descriptor, const char* candidate) {
              return ::mkdirat(descriptor, candidate, 0777) == 0;
          }).error();
    return folder;
}

/// Tries `create` with the wanted name and then with numbered ones, until it does not find the name
/// taken.
template <class Create>
auto Destination::createNumbered(Folder& folder, std::string& name, bool isDirectory, Create create)
    -> SystemResult<decltype(create(0, ""))>
{
    if (const auto error = open(folder))
        return error;
    int& number = folder.lastNumber[name];
    const std::string wanted = name;
    while (true) {
        name = RecoveryEngine::numberedName(wanted, ++number, isDirectory);
        if (auto made = create(descriptor(), name.c_str()))
            return made;
        if (errno != EEXIST)
            return SystemError::last();
    }
}

int Destination::descriptor() const
{
    return currentDescriptor_ ? currentDescriptor_.get() : root_.get();
}

/// Makes the folder the one that `descriptor` stands for.
SystemError Destination::open(Folder& folder)
{
    if (folder.error || &folder == current_)
        return folder.error;
    // From the folder that is open, when it is the parent; else from the top.
    std::vector<const Folder*> way;
    const Folder* from = &folder;
    for (; from != current_ && from->parent != nullptr; from = from->parent)
        way.push_back(from);
    if (from != current_)
        currentDescriptor_.close();
    current_ = from;
    for (auto step = way.rbegin(); step != way.rend(); ++step) {
        FileDescriptor next(::openat(descriptor(), (*step)->name.c_str(), openFolder));
        if (!next) {
            const auto error = SystemError::last();
            currentDescriptor_.close();
            current_ = &folders_.front();
            return error;
        }
        currentDescriptor_ = std::move(next);
        current_ = *step;
    }
    return {};
}
