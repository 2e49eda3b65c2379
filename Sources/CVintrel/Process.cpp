#include "CVintrel/Process.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

extern char** environ;

namespace CVintrel {

namespace {

#ifdef __APPLE__

constexpr short closeTheRest = POSIX_SPAWN_CLOEXEC_DEFAULT;
int addClosingOfTheRest(posix_spawn_file_actions_t& /*actions*/) { return 0; }

#else

constexpr short closeTheRest = 0;
int addClosingOfTheRest([[maybe_unused]] posix_spawn_file_actions_t& actions)
{
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
    return posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#else
    return 0; // what the program itself opens is closed by exec; what it inherited is passed on
#endif
}

#endif

} // namespace

int startProcess(const std::vector<std::string>& words, int output, int errors, pid_t& process)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const auto& word : words)
        arguments.push_back(const_cast<char*>(word.c_str())); // not changed, says POSIX
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    if (const int error = posix_spawn_file_actions_init(&actions))
        return error;
    posix_spawnattr_t attributes;
    int error = posix_spawnattr_init(&attributes);
    if (error != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return error;
    }
    error = posix_spawnattr_setflags(&attributes, closeTheRest);
    if (error == 0)
        error = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (error == 0)
        error = posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (error == 0)
        error = posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    if (error == 0)
        error = addClosingOfTheRest(actions);
    if (error == 0)
        error = ::posix_spawn(
            &process, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

} // namespace CVintrel
