#pragma once

#include "VintrelCLI/StateLine.h"
#include "VintrelCore/Foundation/SystemResult.h"

#include <iosfwd>
#include <string>
#include <string_view>

/// Where a command prints: results, words to the user, and the state line, which must not stand in
/// the middle of either. Used by one thread.
class Console {
public:
    /// `out` takes the results and `err` everything else; both must outlive the console.
    Console(std::ostream& out, std::ostream& err, StateLine& state)
        : out_(out)
        , err_(err)
        , state_(state)
    {
    }

    StateLine& state() { return state_; }

    /// Prints a line of the result. It leaves in one write, so that it is seen at once and whole.
    void print(std::string line);
    /// Prints lines that end in newlines already, in one write.
    void printBlock(std::string_view lines);
    /// Prints a line on standard error.
    void complain(std::string line);

    /// Why the first line that could not be printed was lost.
    const SystemError& outputError() const { return outputError_; }

private:
    std::ostream& out_;
    std::ostream& err_;
    StateLine& state_;
    SystemError outputError_ {};
};
