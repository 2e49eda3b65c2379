#include "Tests/Support/ChildProgram.h"

#include "Tests/Support/TestSource.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

ChildProgram::ChildProgram(const std::vector<std::string>& arguments,
    const std::vector<std::string>& environment, std::string output)
    : output_(std::move(output))
{
    // Everything is ready before the fork: between it and exec little is allowed.
    std::vector<const char*> words { VINTREL_PROGRAM };
    words.reserve(arguments.size() + 2);
    for (const auto& argument : arguments)
        words.push_back(argument.c_str());
    words.push_back(nullptr);
    std::vector<const char*> variables;
    for (const auto& variable : environment)
        variables.push_back(variable.c_str());
    for (char** variable = environ; *variable != nullptr; ++variable)
        variables.push_back(*variable);
    variables.push_back(nullptr);

    process_ = ::fork();
    if (process_ < 0)
        throw std::runtime_error("no child process");
    if (process_ == 0) {
        ::signal(SIGINT, SIG_DFL); // a shell ignores it in what it runs in the background
        const int file = ::open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(file, STDOUT_FILENO);
        ::dup2(file, STDERR_FILENO);
        ::execve(words[0], const_cast<char* const*>(words.data()),
            const_cast<char* const*>(variables.data()));
        ::_exit(127);
    }
}

ChildProgram::~ChildProgram()
{
    signal(SIGKILL);
    hasEnded(0);
}

void ChildProgram::signal(int number) const
{
    if (!hasEnded_)
        ::kill(process_, number);
}

bool ChildProgram::runsUntil(const std::function<bool()>& condition)
{
    while (!condition()) {
        if (hasEnded(WNOHANG))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int ChildProgram::wait()
{
    hasEnded(0);
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

std::string ChildProgram::printed() const
{
    const auto bytes = readFile(output_);
    return { bytes.begin(), bytes.end() };
}

bool ChildProgram::hasEnded(int options)
{
    if (!hasEnded_)
        hasEnded_ = ::waitpid(process_, &status_, options) == process_;
    return hasEnded_;
}

std::vector<std::string> faultyDisk(
    [[maybe_unused]] const std::string& path, [[maybe_unused]] const std::string& faults)
{
#ifdef VINTREL_FAULTY_DISK
    // AddressSanitizer wants to be the first library, for reasons that this one does not touch.
    const char* const options = std::getenv("ASAN_OPTIONS");
    return { "LD_PRELOAD=" VINTREL_FAULTY_DISK, "FAULTY_FILE=" + path, "FAULTS=" + faults,
        std::string("ASAN_OPTIONS=verify_asan_link_order=0:")
            + (options != nullptr ? options : "") };
#else
    return {};
#endif
}
