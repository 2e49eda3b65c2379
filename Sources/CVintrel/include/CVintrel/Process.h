#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace CVintrel {

/// Starts a program by its path, the first of the words, without a shell. It reads nothing, writes
/// to these two descriptors, and inherits no other. The system's error number; 0 when it runs.
int startProcess(const std::vector<std::string>& words, int output, int errors, pid_t& process);

} // namespace CVintrel
