#include "VintrelCore/Recovery/Destination.h"

#include "VintrelCore/Foundation/CallingUser.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/SafeName.h"

#include <CVintrel/Platform.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int openFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
/// What is recovered holds mail and keys.
constexpr mode_t privateFolder = 0700;
constexpr int createNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

/// So many folders stay open. A system that allows a process few files allows 256.
constexpr std::size_t maxOpenFolders = 32;

/// Whether it can be the name that the file system does not take. Some that find no entry by such a
/// name say so, also when one is to be made.
bool isNameRefused(SystemError error)
{
    constexpr int numbers[] = { EILSEQ, EINVAL, ENAMETOOLONG, ENOENT };
    return std::ranges::count(numbers, error.number()) != 0;
}

/// A name as a file system sees it that does not tell cases apart.
std::string folded(const std::string& name)
{
    const auto composed = Unicode::composed(name);
    std::string text;
    for (std::string_view rest = composed; !rest.empty();)
        Unicode::append(text, Unicode::foldedCase(Unicode::takeFirst(rest)));
    return text;
}

/// How long the name may be that is tried after this refusal.
std::size_t maxBytesAfter(SystemError refusal)
{
    return refusal.number() == ENAMETOOLONG ? RecoveryEngine::maxShortNameBytes
                                            : RecoveryEngine::maxNameBytes;
}

/// Makes what is missing of a path of folders.
SystemError makeParents(const std::filesystem::path& path)
{
    std::error_code error;
    std::filesystem::path made;
    for (const auto& part : path) {
        made /= part;
        const auto status = std::filesystem::status(made, error);
        if (std::filesystem::is_directory(status))
            continue;
        if (std::filesystem::exists(status))
            return SystemError(ENOTDIR);
        if (std::filesystem::create_directory(made, error))
            CallingUser::own(FileDescriptor(::open(made.c_str(), openFolder)).get());
        if (error)
            return SystemError(error.value());
    }
    return {};
}

/// Makes and opens a folder at `path`, or where that is taken at the same path with a number, which
/// `path` then becomes.
SystemResult<FileDescriptor> makeFolder(std::string& path, std::size_t maxNameBytes)
{
    const std::string wanted = path;
    do {
        path = RecoveryEngine::uniquePath(wanted, true, maxNameBytes);
        if (::mkdir(path.c_str(), privateFolder) == 0) {
            FileDescriptor root(::open(path.c_str(), openFolder));
            if (!root)
                return SystemError::last();
            CallingUser::own(root.get());
            return root;
        }
    } while (errno == EEXIST); // somebody was faster
    return SystemError::last();
}

} // namespace

Destination::Destination(FileDescriptor root)
    : root_(std::move(root))
{
    folders_.emplace_back();
}

SystemResult<FileDescriptor> Destination::makeRoot(std::string& path)
{
    const std::filesystem::path wanted(path);
    if (const auto error = makeParents(wanted.parent_path()))
        return error;
    auto root = makeFolder(path, RecoveryEngine::maxNameBytes);
    if (root || !isNameRefused(root.error()))
        return root;
    path = (wanted.parent_path() / RecoveryEngine::portableName(wanted.filename().string()))
               .string();
    auto portable = makeFolder(path, maxBytesAfter(root.error()));
    if (!portable)
        path = wanted.string();
    return portable;
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
    return createNamed(folder, name, false, [](int parent, const char* candidate) {
        FileDescriptor file(::openat(parent, candidate, createNew, 0666));
        if (file)
            CallingUser::own(file.get());
        return file;
    });
}

void Destination::remove(Folder& folder, const std::string& name)
{
    if (!open(folder))
        ::unlinkat(descriptor(), name.c_str(), 0);
}

SystemError Destination::flush() const
{
    return SystemError(CVintrel::flushFileSystem(root_.get()));
}

std::optional<std::uint64_t> Destination::freeBytes() const
{
    struct statvfs status { };
    if (::fstatvfs(root_.get(), &status) != 0 || status.f_blocks == 0)
        return std::nullopt;
    // What is kept back for the administrator is there for the administrator.
    const std::uint64_t blocks = ::geteuid() == 0 ? status.f_bfree : status.f_bavail;
    return saturatingMultiply(blocks, status.f_frsize);
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
    folder.level = parent.level + 1;
    folder.name = wanted;
    parent.folders.emplace(wanted, &folder);
    folder.error
        = createNamed(parent, folder.name, true, [](int descriptor, const char* candidate) {
              if (::mkdirat(descriptor, candidate, 0777) != 0)
                  return false;
              CallingUser::own(FileDescriptor(::openat(descriptor, candidate, openFolder)).get());
              return true;
          }).error();
    return folder;
}

/// Makes something new by the wanted name, or where the file system refuses that, by one that it
/// may take.
template <class Create>
auto Destination::createNamed(Folder& folder, std::string& name, bool isDirectory, Create create)
    -> SystemResult<decltype(create(0, ""))>
{
    if (const auto error = open(folder))
        return error;
    const std::string wanted = name;
    auto made = createNumbered(folder, name, isDirectory, RecoveryEngine::maxNameBytes, create);
    if (made || !isNameRefused(made.error()))
        return made;
    name = RecoveryEngine::portableName(wanted);
    auto portable = createNumbered(folder, name, isDirectory, maxBytesAfter(made.error()), create);
    if (!portable)
        name = wanted;
    return portable;
}

/// Tries `create` with the wanted name and then with numbered ones, until it does not find the name
/// taken.
template <class Create>
auto Destination::createNumbered(Folder& folder, std::string& name, bool isDirectory,
    std::size_t maxBytes, Create create) -> SystemResult<decltype(create(0, ""))>
{
    auto& [number, isSharing] = folder.lastNumber[name];
    int& foldedNumber = folder.lastFoldedNumber[folded(name)];
    const std::string wanted = name;
    while (true) {
        number = 1 + (isSharing ? std::max(number, foldedNumber) : number);
        name = RecoveryEngine::numberedName(wanted, number, isDirectory, maxBytes);
        if (auto made = create(descriptor(), name.c_str())) {
            foldedNumber = std::max(foldedNumber, number);
            return made;
        }
        if (errno != EEXIST)
            return SystemError::last();
        // A name that was not wanted before, and is taken: by one of another case, it seems.
        isSharing = isSharing || number == 1;
    }
}

int Destination::descriptor() const
{
    return open_.empty() ? root_.get() : open_.back().descriptor.get();
}

const Destination::OpenFolder* Destination::findOpen(const Folder& folder) const
{
    if (open_.empty() || folder.level < open_.front().folder->level)
        return nullptr;
    const std::size_t index = folder.level - open_.front().folder->level;
    return index < open_.size() && open_[index].folder == &folder ? &open_[index] : nullptr;
}

/// Makes the folder the one that `descriptor` stands for.
SystemError Destination::open(Folder& folder)
{
    if (folder.error)
        return folder.error;
    std::vector<const Folder*> way;
    const Folder* from = &folder;
    for (; from->parent != nullptr && findOpen(*from) == nullptr; from = from->parent)
        way.push_back(from);
    const std::size_t kept = from->parent == nullptr || open_.empty()
        ? 0
        : from->level - open_.front().folder->level + 1;
    open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(kept), open_.end());
    for (auto step = way.rbegin(); step != way.rend(); ++step) {
        FileDescriptor next(::openat(descriptor(), (*step)->name.c_str(), openFolder));
        if (!next) {
            const auto error = SystemError::last();
            open_.clear();
            return error;
        }
        open_.push_back({ *step, std::move(next) });
        if (open_.size() > maxOpenFolders)
            open_.pop_front();
    }
    return {};
}
