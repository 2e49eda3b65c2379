#include "VintrelCLI/CommandLine.h"

#include <CVintrel/Platform.h>

#include <cstdio>
#include <iostream>

int main(int count, char** words)
{
    CVintrel::openStandardDescriptors();
    // Every line is shown at once, also when output goes to a pipe.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const std::vector<std::string> arguments(words + (count > 0 ? 1 : 0), words + count);
    return run(arguments, std::cout, std::cerr);
}
