#include "VintrelCore/Recovery/Recovery.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Recovery/FileReader.h"

#include <CVintrel/Platform.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

namespace RecoveryEngine {

namespace {

/// Far below the 4 MiB that a copy may hold at once: what was read is still in the processor's
/// cache when it is written.
constexpr std::size_t copyPiece = 1'048'576;
constexpr std::size_t maxComponentBytes
    = 250; // leaves room for a number below the 255 bytes of most file systems
constexpr std::size_t maxNumberedBytes = 255;
constexpr std::chrono::milliseconds reportInterval { 150 };
constexpr const char* reportName = "Gendannelsesrapport.csv";

std::string describe(int systemError) { return std::generic_category().message(systemError); }

bool isOutOfSpace(int systemError) { return systemError == ENOSPC || systemError == EDQUOT; }

/// `name` with a number before its extension; number 1 is the name itself. Folders have no
/// extension.
std::string numberedName(const std::string& name, int number, bool isDirectory)
{
    if (number == 1)
        return name;
    const std::string suffix = " (" + std::to_string(number) + ")";
    auto dot = isDirectory ? std::string::npos : name.rfind('.');
    // A leading dot makes a hidden file and no extension; one that leaves no room for the stem is
    // none either.
    if (dot == 0 || dot == name.size() - 1
        || (dot != std::string::npos && name.size() - dot > maxNumberedBytes / 2))
        dot = std::string::npos;
    std::string stem = name.substr(0, dot);
    const std::string extension = dot == std::string::npos ? std::string() : name.substr(dot);
    while (!stem.empty() && stem.size() + suffix.size() + extension.size() > maxNumberedBytes)
        Unicode::removeLast(stem);
    return stem + suffix + extension;
}

bool exists(const std::string& path)
{
    struct stat status { };
    return ::lstat(path.c_str(), &status) == 0;
}

/// A result of a system call that can fail: a value or an errno.
template <class Value> struct Outcome {
    Value value {};
    int error = 0;
};

/// A folder that this run made. Its place is known by its parents, so that no string grows with the
/// depth of the tree.
struct Folder {
    Folder* parent = nullptr; ///< none for the recovery folder itself
    std::string name;         ///< as written
    int error = 0;            ///< errno when it could not be made; nothing can be put into it then
    std::unordered_map<std::string, Folder*> folders; ///< by the name that was wanted
    std::unordered_map<std::string, int>
        lastNumber; ///< given for a wanted name, so that equal names stay linear
};

/// The recovery folder and what has been made in it. Everything is opened relative to its parent's
/// descriptor and never through a link, so that nothing that somebody plants there leads out of it.
class Destination {
public:
    explicit Destination(FileDescriptor root)
        : root_(std::move(root))
    {
        current_ = &folders_.emplace_back();
    }

    /// The folder for the children of `node`, which may be none: folders are made as they are
    /// needed.
    Folder& folderFor(const FileNode* node)
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
            folder = &subfolder(*folder, sanitize((*next)->name));
            folderOfNode_.emplace(*next, folder);
        }
        return *folder;
    }

    Folder& root() { return folders_.front(); }

    /// Makes a new file in the folder. `name` is the one that is wanted, and afterwards the one
    /// that it got.
    Outcome<FileDescriptor> createFile(Folder& folder, std::string& name)
    {
        return createNumbered(folder, name, false, [](int parent, const char* candidate) {
            return FileDescriptor(::openat(
                parent, candidate, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
        });
    }

    void remove(Folder& folder, const std::string& name)
    {
        if (open(folder) == 0)
            ::unlinkat(descriptor(), name.c_str(), 0);
    }

    /// Where a file in the folder lies below the recovery folder.
    static std::string path(const Folder& folder, const std::string& name)
    {
        std::vector<const Folder*> chain;
        for (const auto* part = &folder; part->parent != nullptr; part = part->parent)
            chain.push_back(part);
        std::string path;
        for (auto part = chain.rbegin(); part != chain.rend(); ++part)
            path.append((*part)->name).append("/");
        return path + name;
    }

private:
    Folder& subfolder(Folder& parent, const std::string& wanted)
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
              }).error;
        return folder;
    }

    /// Tries `create` with the wanted name and then with numbered ones, until it does not find the
    /// name taken.
    template <class Create>
    auto createNumbered(Folder& folder, std::string& name, bool isDirectory, Create create)
        -> Outcome<decltype(create(0, ""))>
    {
        if (const int error = open(folder))
            return { .value = {}, .error = error };
        int& number = folder.lastNumber[name];
        const std::string wanted = name;
        while (true) {
            name = numberedName(wanted, ++number, isDirectory);
            if (auto made = create(descriptor(), name.c_str()))
                return { .value = std::move(made), .error = 0 };
            if (errno != EEXIST)
                return { .value = {}, .error = errno };
        }
    }

    int descriptor() const { return currentDescriptor_ ? currentDescriptor_.get() : root_.get(); }

    /// Makes the folder the one that `descriptor` stands for. An errno, or 0.
    int open(Folder& folder)
    {
        if (folder.error != 0 || &folder == current_)
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
            FileDescriptor next(::openat(descriptor(), (*step)->name.c_str(),
                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!next) {
                const int error = errno;
                currentDescriptor_.close();
                current_ = &folders_.front();
                return error;
            }
            currentDescriptor_ = std::move(next);
            current_ = *step;
        }
        return 0;
    }

    FileDescriptor root_;
    std::deque<Folder> folders_; // the first one is the recovery folder; addresses stay
    std::unordered_map<const FileNode*, Folder*> folderOfNode_;
    const Folder* current_;
    FileDescriptor currentDescriptor_; // of current_; none while that is the recovery folder
};

/// Writes one new file. Holes are left out of it, where the file system can.
class FileWriter {
public:
    explicit FileWriter(FileDescriptor descriptor)
        : descriptor_(std::move(descriptor))
    {
    }

    /// An errno, or 0.
    int write(const FileReader::Piece& piece)
    {
        endsInHole_ = piece.holeLength > 0;
        const int error = writeAll(piece.bytes);
        position_ += piece.size();
        return error;
    }

    /// Gives the file its length and dates and closes it. An errno, or 0.
    int finish(const FileNode& node, bool restoreDates)
    {
        if (endsInHole_ && ::ftruncate(descriptor_.get(), static_cast<off_t>(position_)) != 0)
            return errno;
        if (restoreDates)
            setDates(node);
        return descriptor_.close();
    }

private:
    int writeAll(std::span<const std::uint8_t> bytes)
    {
        for (std::uint64_t at = position_; !bytes.empty();) {
            const auto count
                = ::pwrite(descriptor_.get(), bytes.data(), bytes.size(), static_cast<off_t>(at));
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                return count < 0 ? errno : ENOSPC;
            at += static_cast<std::uint64_t>(count);
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
        return 0;
    }

    static std::timespec timespecOf(Date date)
    {
        const auto whole = std::chrono::floor<std::chrono::seconds>(date);
        std::timespec time {};
        time.tv_sec = static_cast<std::time_t>(whole.time_since_epoch().count());
        time.tv_nsec = static_cast<long>((date - whole).count());
        return time;
    }

    /// Not every file system holds every date; a file without its date is still a file.
    void setDates(const FileNode& node)
    {
        if (node.created)
            CVintrel::setCreationDate(descriptor_.get(), timespecOf(*node.created));
        if (!node.modified)
            return;
        std::timespec times[2] {};
        times[0].tv_nsec = UTIME_OMIT;
        times[1] = timespecOf(*node.modified);
        ::futimens(descriptor_.get(), times);
    }

    FileDescriptor descriptor_;
    std::uint64_t position_ = 0;
    bool endsInHole_ = false;
};

std::string csv(const std::string& field)
{
    if (field.find_first_of(";\"\n") == std::string::npos)
        return field;
    std::string quoted = "\"";
    for (const char character : field) {
        if (character == '"')
            quoted += '"';
        quoted += character;
    }
    return quoted += '"';
}

/// The report, written row by row, so that it is there also when the run is killed. Its file is
/// made before all others, which keeps its name free for it. What cannot be written, on a full
/// disk, is tried once more at the end.
class Report {
public:
    Report(Destination& destination, bool isWanted)
    {
        if (!isWanted)
            return;
        std::string name = reportName;
        descriptor_ = destination.createFile(destination.root(), name).value;
        rows_ = "Sti;Størrelse;Status;Chance;Ulæselige bytes;Bemærkning\n";
    }
    ~Report() { flush(); }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void add(const std::string& path, const FileNode& node, std::uint64_t badBytes)
    {
        if (!descriptor_)
            return;
        rows_.append(csv(path)).append(";").append(std::to_string(node.size)).append(";");
        rows_.append(badBytes == 0 ? "OK" : "Ulæselige sektorer").append(";");
        rows_.append(label(node.recoverability))
            .append(";")
            .append(std::to_string(badBytes))
            .append(";");
        rows_.append(csv(node.note.value_or(std::string()))).append("\n");
        if (rows_.size() >= flushSize)
            flush();
    }

private:
    static constexpr std::size_t flushSize = 65'536;

    void flush()
    {
        while (descriptor_ && !rows_.empty()) {
            const auto count = ::write(descriptor_.get(), rows_.data(), rows_.size());
            if (count <= 0)
                return;
            rows_.erase(0, static_cast<std::size_t>(count));
        }
    }

    FileDescriptor descriptor_;
    std::string rows_; // not written yet
};

/// One call of recover(), once its folder stands.
class Run {
public:
    Run(DiskSource& source, FileDescriptor root, const RecoveryOptions& options,
        const Reporter& reporter, const WorkProgress& progress, RecoveryResult& result)
        : source_(source)
        , options_(options)
        , reporter_(reporter)
        , progress_(progress)
        , result_(result)
        , destination_(std::move(root))
        , report_(destination_, options.writeReport)
    {
    }

    void copy(const std::vector<FileNode*>& files)
    {
        state_.filesTotal = static_cast<std::int64_t>(files.size());
        for (const auto* file : files)
            state_.bytesTotal += file->size;
        for (const auto* file : files) {
            result_.cancelled = progress_.isCancelled();
            if (result_.cancelled || !copyFile(*file))
                break;
            ++state_.filesDone;
        }
        if (reporter_)
            reporter_(state_);
    }

private:
    /// False when the run has to end.
    bool copyFile(const FileNode& node)
    {
        Folder& folder
            = destination_.folderFor(options_.keepFolderStructure ? node.parent() : nullptr);
        std::string name = sanitize(node.name);
        if (folder.error != 0)
            return fail(folder, name, ": kunne ikke oprette mappen: ", folder.error);
        auto created = destination_.createFile(folder, name);
        if (created.error != 0)
            return fail(folder, name, ": kunne ikke oprette filen: ", created.error);

        FileWriter writer(std::move(created.value));
        const std::string path = Destination::path(folder, name);
        int error = 0;
        const auto badBytes = FileReader::stream(
            node, source_, copyPiece, std::nullopt, [&](const FileReader::Piece& piece) {
                error = writer.write(piece);
                state_.bytesDone += piece.size();
                report(path);
                result_.cancelled = progress_.isCancelled();
                return error == 0 && !result_.cancelled;
            });
        const int closeError = writer.finish(node, options_.restoreDates);
        error = error != 0 ? error : closeError;
        if (error != 0 || result_.cancelled) {
            destination_.remove(folder, name);
            return error != 0 && fail(folder, name, ": kunne ikke skrive filen: ", error);
        }
        ++(badBytes == 0 ? result_.recovered : result_.withErrors);
        result_.bytes += node.size;
        report_.add(path, node, badBytes);
        return true;
    }

    bool fail(const Folder& folder, const std::string& name, const char* what, int error)
    {
        if (isOutOfSpace(error)) {
            result_.failures.emplace_back("Destinationen er fuld – gendannelsen blev stoppet.");
            return false;
        }
        ++result_.failed;
        result_.failures.push_back(Destination::path(folder, name) + what + describe(error));
        return true;
    }

    void report(const std::string& path)
    {
        if (!reporter_)
            return;
        const auto now = std::chrono::steady_clock::now();
        if (now - lastReport_ < reportInterval)
            return;
        lastReport_ = now;
        state_.currentFile = path;
        reporter_(state_);
    }

    DiskSource& source_;
    const RecoveryOptions& options_;
    const Reporter& reporter_;
    const WorkProgress& progress_;
    RecoveryResult& result_;
    Destination destination_;
    Report report_;
    RecoveryProgress state_;
    std::chrono::steady_clock::time_point lastReport_ {};
};

/// The files among the nodes and below them, each once, those that exist first.
std::vector<FileNode*> filesToCopy(std::span<FileNode* const> nodes)
{
    std::vector<FileNode*> files;
    std::unordered_set<const FileNode*> handled;
    const auto take = [&](FileNode* node) {
        if (handled.insert(node).second)
            files.push_back(node);
    };
    for (auto* node : nodes) {
        if (node->isDirectory())
            std::ranges::for_each(node->allFiles(), take);
        else
            take(node);
    }
    std::stable_partition(files.begin(), files.end(),
        [](const FileNode* node) { return node->status == EntryStatus::existing; });
    return files;
}

/// Makes the recovery folder, and what is missing above it. `path` is where it is wanted, and
/// afterwards where it is.
Outcome<FileDescriptor> makeRoot(std::string& path)
{
    const std::string wanted = path;
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(wanted).parent_path(), error);
    if (error)
        return { .value = {}, .error = error.value() };
    do {
        path = uniquePath(wanted, true);
        if (::mkdir(path.c_str(), 0777) == 0) {
            FileDescriptor root(
                ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            const int openError = root ? 0 : errno;
            return { .value = std::move(root), .error = openError };
        }
    } while (errno == EEXIST); // somebody was faster
    return { .value = {}, .error = errno };
}

} // namespace

RecoveryResult recover(std::span<FileNode* const> nodes, const std::string& rootName,
    DiskSource& source, const std::string& destination, const RecoveryOptions& options,
    const Reporter& reporter, const WorkProgress& progress)
{
    RecoveryResult result;
    const std::string name = rootName.empty() ? "Gendannet" : sanitize(rootName);
    std::string folder = (std::filesystem::path(destination) / name).string();
    auto root = makeRoot(folder);
    if (root.error != 0) {
        result.failed = static_cast<std::int64_t>(nodes.size());
        result.failures.push_back(
            "Kunne ikke oprette mappen " + folder + ": " + describe(root.error));
        return result;
    }
    result.folder = folder;
    Run(source, std::move(root.value), options, reporter, progress, result)
        .copy(filesToCopy(nodes));
    return result;
}

std::string sanitize(std::string_view name)
{
    std::string safe(name);
    std::ranges::replace(safe, '/', ':');
    std::ranges::replace(safe, '\0', '_');
    safe = std::string(Unicode::trimmed(safe));
    if (safe.empty() || safe == "." || safe == "..")
        return "unavngivet";
    while (safe.size() > maxComponentBytes)
        Unicode::removeLast(safe);
    return safe;
}

std::string uniquePath(const std::string& path, bool isDirectory)
{
    const std::filesystem::path wanted(path);
    std::string candidate = path;
    for (int number = 2; exists(candidate); ++number)
        candidate
            = wanted.parent_path() / numberedName(wanted.filename().string(), number, isDirectory);
    return candidate;
}

} // namespace RecoveryEngine
