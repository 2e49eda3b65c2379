// A failing disk below a program: a library to be preloaded, which comes between it and the system's reads of one file.
//
//   FAULTY_FILE    the file that plays the disk
//   FAULTS         kind:start-end,… in bytes, the end not included. eio: cannot be read; what lies before it in a read
//                  is delivered, as a kernel does. short: reads end early, at odd places. eintr: every other read is
//                  interrupted.
//   READ_DELAY     microseconds that each MiB of the file takes longer to read
//   READ_LOG       a file that gets a line "offset count" for each read of the file, as it was asked for
//   FAULTY_FLUSH   a file whose first flush fails
//   CLOCK_RATE     how many times faster than the real one the monotonic clock goes; sleeping is as long as ever
//
// It is plain code without the project's options: it gets loaded into programs with and without sanitizers.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
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

int openLog()
{
    const char* const path = std::getenv("READ_LOG");
    return path != nullptr ? ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
}

std::vector<Fault> readFaults()
{
    std::vector<Fault> faults;
    const char* text = std::getenv("FAULTS");
    char kind[16];
    long long start = 0;
    long long end = 0;
    int length = 0;
    while (text != nullptr && std::sscanf(text, "%15[a-z]:%lld-%lld%n", kind, &start, &end, &length) == 3) {
        const bool isEIO = std::strcmp(kind, "eio") == 0;
        const bool isShort = std::strcmp(kind, "short") == 0;
        faults.push_back({ isEIO ? Fault::eio : isShort ? Fault::shortRead : Fault::interrupted, start, end });
        text += length + (text[length] == ',' ? 1 : 0);
    }
    return faults;
}

/// The file that a variable names, as it was when the program began to use files.
class NamedFile {
public:
    explicit NamedFile(const char* variable)
    {
        const char* const path = std::getenv(variable);
        isThere_ = path != nullptr && ::stat(path, &status_) == 0;
    }

    bool is(int descriptor) const
    {
        struct stat own { };
        return isThere_ && ::fstat(descriptor, &own) == 0 && own.st_dev == status_.st_dev
            && own.st_ino == status_.st_ino;
    }

private:
    bool isThere_ = false;
    struct stat status_ { };
};

/// How many bytes a read may deliver, or -1 with errno set.
ssize_t allowed(int descriptor, std::size_t count, std::int64_t position)
{
    static const NamedFile disk("FAULTY_FILE");
    static const std::int64_t readDelay = numberIn("READ_DELAY", 0);
    static const int log = openLog();
    static const auto faults = readFaults();
    static unsigned reads = 0;
    if (count == 0 || !disk.is(descriptor))
        return static_cast<ssize_t>(count);
    if (log >= 0)
        ::dprintf(log, "%lld %zu\n", static_cast<long long>(position), count);
    if (const auto delay = readDelay * static_cast<std::int64_t>(count) / 1'048'576; delay > 0)
        ::usleep(static_cast<useconds_t>(delay));
    ++reads;
    for (const auto& fault : faults) {
        if (position + static_cast<std::int64_t>(count) <= fault.start || fault.end <= position)
            continue;
        const bool isHit = fault.kind == Fault::eio && position >= fault.start;
        if (isHit || (fault.kind == Fault::interrupted && reads % 2 != 0)) {
            errno = isHit ? EIO : EINTR;
            return -1;
        }
        if (fault.kind == Fault::eio)
            count = static_cast<std::size_t>(fault.start - position);
        else if (fault.kind == Fault::shortRead)
            count = std::min<std::size_t>(count, 1 + reads * 997 % 5000);
    }
    return static_cast<ssize_t>(count);
}

} // namespace

extern "C" {

ssize_t pread64(int descriptor, void* buffer, std::size_t count, off64_t position)
{
    static const auto system = next<ssize_t(int, void*, std::size_t, off64_t)>("pread64");
    const ssize_t limit = allowed(descriptor, count, position);
    return limit < 0 ? limit : system(descriptor, buffer, static_cast<std::size_t>(limit), position);
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
