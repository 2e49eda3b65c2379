#include "VintrelCLI/Output.h"

std::unique_ptr<Output> makeJSONOutput(Console&) { return nullptr; }
