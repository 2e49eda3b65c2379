// A failing disk below a program: a library to be preloaded, which comes between it and the
// system's reads of one file.
//
//   FAULTY_FILE    the file that plays the disk
//   FAULTS         kind:start-end,… in bytes, the end not included. eio: cannot be read; what lies
//                  before it in a read is delivered, as a kernel does. short: reads end early, at
//                  odd places. eintr: every other read is interrupted.
//   FAULTY_DEVICE  the file says that it is a disk, with sectors of 512 bytes
//   LEAVES         kind:reads. After so many reads the disk leaves. eio: all others fail. empty:
//   they
//                  give nothing, and the disk's size is 0.
//   READ_DELAY     microseconds that each MiB of the file takes longer to read
//   READ_LOG       a file that gets a line "offset count" for each read of the file, as it was
//                  asked for
//   FAULTY_FLUSH   a file whose first flush fails
//   FAULTY_SYNC    flushing a whole file system fails
//   CLOCK_RATE     how many times faster than the real one the monotonic clock goes; sleeping is
//                  as long as ever
//
// It is plain code without the project's options: it gets loaded into programs with and without
// sanitizers.

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct Fault {
    enum Kind { eio, shortRead, interrupted } kind;
    std::int64_t start, end;
};

template <class Function> Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::int64_t numberIn(const char* variable, std::int64_t otherwise)
{
    const char* const text = std::getenv(variable);
    return text != nullptr ? std::strtoll(text, nullptr, 10) : otherwise;
}

constexpr std::size_t bucketSize = 1'048'576;

struct Plan {
    /// By the MiB that they touch. A benchmark must not measure the search for them.
    std::vector<std::vector<Fault>> faults;
    std::int64_t readDelay = numberIn("READ_DELAY", 0);
    long long mostReads = -1; ///< before the disk leaves; -1: it stays
    bool leavesEmpty = false;
    int log = -1;

    Plan()
    {
        char leaving[16] {};
        if (const char* const leaves = std::getenv("LEAVES"))
            std::sscanf(leaves, "%15[a-z]:%lld", leaving, &mostReads);
        leavesEmpty = std::strcmp(leaving, "empty") == 0;
        if (const char* const path = std::getenv("READ_LOG"))
            log = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const char* text = std::getenv("FAULTS");
        char kind[16];
        long long start = 0;
        long long end = 0;
        int length = 0;
        while (text != nullptr
            && std::sscanf(text, "%15[a-z]:%lld-%lld%n", kind, &start, &end, &length) == 3) {
            const bool isEIO = std::strcmp(kind, "eio") == 0;
            const bool isShort = std::strcmp(kind, "short") == 0;
            const Fault::Kind faultKind = isEIO ? Fault::eio
                : isShort                       ? Fault::shortRead
                                                : Fault::interrupted;
            const auto last = static_cast<std::size_t>(end) / bucketSize;
            faults.resize(std::max(faults.size(), last + 1));
            for (auto bucket = static_cast<std::size_t>(start) / bucketSize; bucket <= last;
                 ++bucket)
                faults[bucket].push_back({ faultKind, start, end });
            text += length;
            if (*text == ',')
                ++text;
        }
    }
};

const Plan& plan()
{
    static const Plan plan;
    return plan;
}

/// The file that a variable names, as it was when the program began to use files.
class NamedFile {
public:
    explicit NamedFile(const char* variable)
    {
        static const auto system = next<int(const char*, struct stat*)>("stat");
        const char* const path = std::getenv(variable);
        isThere_ = path != nullptr && system(path, &status_) == 0;
    }

    bool is(int descriptor) const
    {
        static const auto system = next<int(int, struct stat*)>("fstat");
        struct stat own { };
        return system(descriptor, &own) == 0 && is(own);
    }
    bool is(const struct stat& status) const
    {
        return isThere_ && status.st_dev == status_.st_dev && status.st_ino == status_.st_ino;
    }
    std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }

private:
    bool isThere_ = false;
    struct stat status_ { };
};

int knownDisk = -1; ///< a descriptor of the file that plays the disk, while it is open

const NamedFile& disk()
{
    static const NamedFile disk("FAULTY_FILE");
    return disk;
}

bool isDisk(int descriptor)
{
    if (descriptor != knownDisk && disk().is(descriptor))
        knownDisk = descriptor;
    return descriptor == knownDisk;
}

/// What stat() and its like say of the file.
void callDevice(int result, struct stat* status)
{
    static const bool isDevice = std::getenv("FAULTY_DEVICE") != nullptr;
    if (!isDevice || result != 0 || !disk().is(*status))
        return;
    status->st_mode = (status->st_mode & ~static_cast<mode_t>(S_IFMT)) | S_IFBLK;
    status->st_rdev = 1; // no disk has this number
}

unsigned reads = 0;

bool hasLeft() { return plan().mostReads >= 0 && reads > plan().mostReads; }

/// How many bytes a read may deliver, or -1 with errno set.
ssize_t allowed(int descriptor, std::size_t count, std::int64_t position)
{
    if (count == 0 || !isDisk(descriptor))
        return static_cast<ssize_t>(count);
    if (plan().log >= 0)
        ::dprintf(plan().log, "%lld %zu\n", static_cast<long long>(position), count);
    if (const auto delay = plan().readDelay * static_cast<std::int64_t>(count) / 1'048'576;
        delay > 0)
        ::usleep(static_cast<useconds_t>(delay));
    ++reads;
    if (hasLeft()) {
        errno = EIO;
        return plan().leavesEmpty ? 0 : -1;
    }
    const auto& faults = plan().faults;
    const auto first = static_cast<std::size_t>(position) / bucketSize;
    const auto last = (static_cast<std::size_t>(position) + count - 1) / bucketSize;
    for (std::size_t bucket = first; bucket <= last && bucket < faults.size(); ++bucket) {
        for (const auto& fault : faults[bucket]) {
            if (position + static_cast<std::int64_t>(count) <= fault.start || fault.end <= position)
                continue;
            if (fault.kind == Fault::shortRead)
                count = std::min<std::size_t>(count, 1 + reads * 997 % 5000);
            if (fault.kind == Fault::interrupted && reads % 2 != 0) {
                errno = EINTR;
                return -1;
            }
            if (fault.kind == Fault::eio && position >= fault.start) {
                errno = EIO;
                return -1;
            }
            if (fault.kind == Fault::eio)
                count = std::min(count, static_cast<std::size_t>(fault.start - position));
        }
    }
    return static_cast<ssize_t>(count);
}

} // namespace

extern "C" {

ssize_t pread64(int descriptor, void* buffer, std::size_t count, off64_t position)
{
    static const auto system = next<ssize_t(int, void*, std::size_t, off64_t)>("pread64");
    const ssize_t limit = allowed(descriptor, count, position);
    return limit < 0 ? limit
                     : system(descriptor, buffer, static_cast<std::size_t>(limit), position);
}

ssize_t pread(int descriptor, void* buffer, std::size_t count, off_t position)
{
    return pread64(descriptor, buffer, count, position);
}

ssize_t read(int descriptor, void* buffer, std::size_t count)
{
    static const auto system = next<ssize_t(int, void*, std::size_t)>("read");
    const ssize_t limit = allowed(descriptor, count, ::lseek(descriptor, 0, SEEK_CUR));
    return limit < 0 ? limit : system(descriptor, buffer, static_cast<std::size_t>(limit));
}

// On the systems that this is for, both kinds of struct stat are laid out alike.
int stat64(const char* path, struct stat64* status) noexcept
{
    static const auto system = next<int(const char*, struct stat64*)>("stat64");
    const int result = system(path, status);
    callDevice(result, reinterpret_cast<struct stat*>(status));
    return result;
}

int stat(const char* path, struct stat* status) noexcept
{
    return stat64(path, reinterpret_cast<struct stat64*>(status));
}

int fstat64(int descriptor, struct stat64* status) noexcept
{
    static const auto system = next<int(int, struct stat64*)>("fstat64");
    const int result = system(descriptor, status);
    callDevice(result, reinterpret_cast<struct stat*>(status));
    return result;
}

int fstat(int descriptor, struct stat* status) noexcept
{
    return fstat64(descriptor, reinterpret_cast<struct stat64*>(status));
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    static const auto system = next<int(int, unsigned long, void*)>("ioctl");
    std::va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    if (!isDisk(descriptor) || (request != BLKGETSIZE64 && request != BLKSSZGET))
        return system(descriptor, request, argument);
    if (request == BLKSSZGET)
        *static_cast<int*>(argument) = 512;
    else
        *static_cast<std::uint64_t*>(argument)
            = hasLeft() && plan().leavesEmpty ? 0 : disk().size();
    return 0;
}

int close(int descriptor)
{
    static const auto system = next<int(int)>("close");
    if (descriptor == knownDisk)
        knownDisk = -1;
    return system(descriptor);
}

int fsync(int descriptor)
{
    static const auto system = next<int(int)>("fsync");
    static bool hasFailed = false;
    static const NamedFile file("FAULTY_FLUSH");
    if (!hasFailed && file.is(descriptor)) {
        hasFailed = true;
        errno = EIO;
        return -1;
    }
    return system(descriptor);
}

int syncfs(int descriptor) noexcept
{
    static const auto system = next<int(int)>("syncfs");
    if (std::getenv("FAULTY_SYNC") == nullptr)
        return system(descriptor);
    errno = EIO;
    return -1;
}

int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    static const auto system = next<int(clockid_t, struct timespec*)>("clock_gettime");
    static const std::int64_t rate = numberIn("CLOCK_RATE", 1);
    const int result = system(clock, time);
    if (rate > 1 && result == 0 && clock == CLOCK_MONOTONIC) {
        const std::int64_t fast = (time->tv_sec * 1'000'000'000 + time->tv_nsec) * rate;
        time->tv_sec = fast / 1'000'000'000;
        time->tv_nsec = fast % 1'000'000'000;
    }
    return result;
}
}
