#include "LanternmoorPro/platform/posix/DetachedProgram.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace lm::platform::posix {
namespace {

// Owns what posix_spawn needs for the duration of one call.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    SpawnSetup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

        posix_spawnattr_init(&attributes);
        // Ignored signals survive exec, and the launcher ignores some of its own.
        sigset_t defaults;
        sigfillset(&defaults);
        sigset_t noneBlocked;
        sigemptyset(&noneBlocked);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setsigmask(&attributes, &noneBlocked);
        // Its own session keeps a Ctrl+C meant for the launcher away from it.
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnSetup() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
};

void reapInBackground(pid_t pid) {
    std::thread([pid] {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

}  // namespace

Failure startDetached(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    SpawnSetup setup;
    pid_t pid = 0;
    const int failed = posix_spawnp(&pid, program.c_str(), &setup.actions, &setup.attributes, argv.data(), environ);
    if (failed != 0) return Error::fromSyscall("posix_spawn", failed, program);
    reapInBackground(pid);
    return std::nullopt;
}

}  // namespace lm::platform::posix
