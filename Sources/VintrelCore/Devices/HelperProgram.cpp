#include "VintrelCore/Devices/HelperProgram.h"

#include <CVintrel/Process.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <span>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::size_t maxComplaints = 4'096; // bytes that are kept
/// How soon the end of a program is seen whose children hold its output open.
constexpr auto endCheckInterval = 20ms;
/// How long a killed program is waited for: a disk that hangs can keep it from dying.
constexpr auto deathWait = 2s;

/// Two ends of a connection that carries bytes and descriptors.
struct Connection {
    FileDescriptor near, far;
};

/// Moves a descriptor out of the way of the standard ones, which may be closed in us, and keeps it
/// from other programs.
FileDescriptor keptAside(int descriptor)
{
    const FileDescriptor original(descriptor);
    return FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
}

Connection connect()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return {};
    Connection connection { keptAside(ends[0]), FileDescriptor() };
    connection.far = keptAside(ends[1]);
    return connection;
}

class Child {
public:
    explicit Child(pid_t process)
        : process_(process)
    {
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (checkEnd())
            return;
        ::kill(process_, SIGKILL);
        waitUntil(Clock::now() + deathWait);
    }

    /// Asks the system whether the program has ended.
    bool checkEnd()
    {
        if (!hasEnded_) {
            const pid_t ended = ::waitpid(process_, &status_, WNOHANG);
            hasEnded_ = ended == process_ || (ended < 0 && errno != EINTR);
            isKnown_ = ended == process_;
        }
        return hasEnded_;
    }
    bool waitUntil(Clock::time_point deadline)
    {
        while (!checkEnd() && Clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        return checkEnd();
    }
    int exitStatus() const { return isKnown_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

private:
    const pid_t process_;
    int status_ = 0;
    bool hasEnded_ = false;
    bool isKnown_
        = false; ///< not so when the system, told to forget children, has forgotten this one
};

/// Takes the descriptors that came with a message; the first one ever is kept.
void takeDescriptors(msghdr& message, FileDescriptor& kept)
{
    for (auto* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
            FileDescriptor received(number);
            ::fcntl(number, F_SETFD, FD_CLOEXEC);
            if (!kept)
                kept = std::move(received);
        }
    }
}

enum class Taken { some, nothing, end };

/// Takes what has arrived, at most a buffer full of it.
Taken take(int connection, std::string& text, FileDescriptor& descriptor)
{
    char bytes[16'384];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec room { bytes, sizeof bytes };
    msghdr message {};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const auto count = ::recvmsg(connection, &message, MSG_DONTWAIT);
    if (count < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? Taken::nothing
                                                                         : Taken::end;
    takeDescriptors(message, descriptor);
    text.append(bytes, static_cast<std::size_t>(count));
    return count > 0 ? Taken::some : Taken::end;
}

} // namespace

namespace HelperProgram {

Outcome run(const std::vector<std::string>& words, Limits limits)
{
    Outcome outcome;
    const auto deadline = Clock::now() + limits.time;
    auto output = connect();
    auto complaints = connect();
    if (!output.far || !complaints.far) {
        outcome.error = SystemError::last();
        return outcome;
    }
    pid_t process = -1;
    outcome.error = SystemError(
        CVintrel::startProcess(words, output.far.get(), complaints.far.get(), process));
    if (outcome.error)
        return outcome;
    Child child(process);
    output.far.close();
    complaints.far.close();

    FileDescriptor unwanted;
    pollfd ends[] = { { output.near.get(), POLLIN, 0 }, { complaints.near.get(), POLLIN, 0 } };
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        const auto now = Clock::now();
        if (now >= deadline)
            break;
        // Asked before the bytes: what a program that has ended printed is there. Its children may
        // live on and hold the connection, for ever.
        const bool hasEnded = child.checkEnd();
        const auto patience = std::min<Clock::duration>(endCheckInterval, deadline - now);
        ::poll(ends, 2,
            hasEnded
                ? 0
                : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(patience).count()));
        bool isQuiet = true;
        for (std::size_t i = 0; i < 2; ++i) {
            if (ends[i].fd < 0)
                continue;
            const auto taken = i == 0 ? take(ends[i].fd, outcome.output, outcome.descriptor)
                                      : take(ends[i].fd, outcome.complaints, unwanted);
            isQuiet = isQuiet && taken != Taken::some;
            if (taken == Taken::end)
                ends[i].fd = -1; // poll() leaves it out
        }
        outcome.complaints.resize(std::min(outcome.complaints.size(), maxComplaints));
        if (outcome.output.size() > limits.output) {
            outcome.error = SystemError(EFBIG);
            return outcome;
        }
        if (hasEnded && isQuiet)
            break;
    }
    if (!child.waitUntil(deadline))
        outcome.error = SystemError(ETIMEDOUT);
    else
        outcome.status = child.exitStatus();
    return outcome;
}

} // namespace HelperProgram
