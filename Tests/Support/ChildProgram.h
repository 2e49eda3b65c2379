#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// vintrel-cli at work beside the test, which can send it signals.
class ChildProgram {
public:
    /// `environment`: "NAME=value", in addition to what is set. Everything that it prints goes to
    /// the file `output`.
    ChildProgram(const std::vector<std::string>& arguments,
        const std::vector<std::string>& environment, std::string output);
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    ~ChildProgram();

    void signal(int number) const;
    /// Waits until the condition holds. False when the program ends before.
    bool runsUntil(const std::function<bool()>& condition);
    /// Waits for its end. The exit status, or minus the number of the signal that ended it.
    int wait();
    std::string printed() const;

private:
    bool hasEnded(int options);

    const std::string output_;
    pid_t process_ = -1;
    bool hasEnded_ = false;
    int status_ = 0;
};

/// The environment that puts a failing disk below the program, which then reads `path` from it.
/// Empty where there is no such disk; the faults are described in FaultyDisk.cpp.
std::vector<std::string> faultyDisk(const std::string& path, const std::string& faults);
