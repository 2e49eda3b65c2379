#include "VintrelCLI/Console.h"

#include <ostream>

namespace {

void write(std::ostream& stream, std::string_view text)
{
    stream.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
}

} // namespace

void Console::print(std::string line)
{
    line += '\n';
    printBlock(line);
}

void Console::printBlock(std::string_view lines)
{
    state_.clear();
    write(out_, lines);
    if (!out_ && !outputError_)
        outputError_ = SystemError::last();
}

void Console::complain(std::string line)
{
    state_.clear();
    line += '\n';
    write(err_, line);
}
