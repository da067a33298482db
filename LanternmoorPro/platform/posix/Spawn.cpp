#include "LanternmoorPro/platform/posix/Spawn.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;

namespace lm::platform::posix {
namespace {

// The mode of a file an appending stream creates: owner-only, as every file the launcher makes.
constexpr mode_t createdFileMode = 0600;

// A null-terminated array of C strings that owns its strings.
class StringVector {
public:
    explicit StringVector(std::vector<std::string> strings) : strings_(std::move(strings)) {
        for (auto& text : strings_) pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    StringVector(const StringVector&) = delete;
    StringVector& operator=(const StringVector&) = delete;

    char* const* get() const { return pointers_.data(); }

private:
    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

StringVector argumentsOf(const ProcessConfiguration& configuration) {
    std::vector<std::string> strings{configuration.executable};
    strings.insert(strings.end(), configuration.arguments.begin(), configuration.arguments.end());
    return StringVector(std::move(strings));
}

StringVector environmentOf(const EnvironmentVariables& variables) {
    std::vector<std::string> strings;
    for (const auto& [name, value] : variables) strings.push_back(name + "=" + value);
    return StringVector(std::move(strings));
}

// posix_spawn changes the folder before it looks for the program, so a relative program path
// would be looked up in the new folder instead of the launcher's own.
std::string programPath(const ProcessConfiguration& configuration) {
    const auto& executable = configuration.executable;
    if (!configuration.workingDirectory || executable.empty() || executable.front() == '/') return executable;
    if (configuration.searchPath && executable.find('/') == std::string::npos) return executable;
    std::error_code error;
    auto absolute = std::filesystem::absolute(executable, error);
    return error ? executable : absolute.string();
}

// The file actions and attributes of one start, released whatever happens. The first error of
// any step is kept and reported by spawn().
class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attributes_);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    // The pipe's end goes in before anything is opened, since the pipe may hold 0, 1 or 2 in a
    // launcher started with those closed; standard error follows standard output last, once that
    // has its final file.
    void connectStreams(const ProcessConfiguration& configuration, int outputPipe) {
        const std::array<std::pair<int, const Stream*>, 2> outputs{
            {{STDOUT_FILENO, &configuration.standardOutput}, {STDERR_FILENO, &configuration.standardError}}};
        for (const auto& [target, stream] : outputs) {
            if (stream->kind == Stream::Kind::pipe) note(::posix_spawn_file_actions_adddup2(&actions_, outputPipe, target));
        }
        const auto input = configuration.standardInput.kind;
        if (input == Stream::Kind::nullDevice || input == Stream::Kind::pipe) open(STDIN_FILENO, "/dev/null", O_RDONLY);
        for (const auto& [target, stream] : outputs) {
            if (stream->kind == Stream::Kind::nullDevice) open(target, "/dev/null", O_WRONLY);
            if (stream->kind == Stream::Kind::appendToFile) open(target, stream->path.c_str(), O_WRONLY | O_APPEND | O_CREAT);
        }
        if (configuration.standardError.kind == Stream::Kind::sameAsOutput) {
            note(::posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO));
        }
    }

    void changeDirectory(const std::optional<std::string>& folder) {
        if (folder) note(::posix_spawn_file_actions_addchdir_np(&actions_, folder->c_str()));
    }

    // The launcher catches its termination signals and ignores SIGPIPE, and a thread may block
    // signals when it spawns; a child must start with none of that. It starts a process group of
    // its own, so a Ctrl+C meant for the launcher never reaches it and its forced stop reaches
    // everything it started; a program handed to the user gets a session of its own instead.
    void isolate(const ProcessConfiguration& configuration) {
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        note(::posix_spawnattr_setsigmask(&attributes_, &none));
        note(::posix_spawnattr_setsigdefault(&attributes_, &all));
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (configuration.outlivesLauncher) {
            flags |= POSIX_SPAWN_SETSID;
        } else {
            flags |= POSIX_SPAWN_SETPGROUP;
            note(::posix_spawnattr_setpgroup(&attributes_, 0));
        }
        note(::posix_spawnattr_setflags(&attributes_, flags));
    }

    Result<pid_t> spawn(const ProcessConfiguration& configuration) {
        if (error_ != 0) return Error::fromSyscall("posix_spawn", error_, configuration.executable);
        auto arguments = argumentsOf(configuration);
        auto environment = environmentOf(configuration.environment.value_or(EnvironmentVariables{}));
        auto* variables = configuration.environment ? environment.get() : environ;
        pid_t processIdentifier = 0;
        auto program = programPath(configuration);
        auto spawner = configuration.searchPath ? ::posix_spawnp : ::posix_spawn;
        auto error = spawner(&processIdentifier, program.c_str(), &actions_, &attributes_, arguments.get(), variables);
        if (error != 0) return Error::fromSyscall("posix_spawn", error, configuration.executable);
        return processIdentifier;
    }

private:
    void open(int target, const char* path, int flags) {
        note(::posix_spawn_file_actions_addopen(&actions_, target, path, flags, createdFileMode));
    }

    void note(int error) {
        if (error_ == 0) error_ = error;
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    int error_ = 0;
};

}  // namespace

bool needsOutputPipe(const ProcessConfiguration& configuration) {
    return configuration.standardOutput.kind == Stream::Kind::pipe ||
           configuration.standardError.kind == Stream::Kind::pipe;
}

Result<pid_t> spawnProcess(const ProcessConfiguration& configuration, int outputPipe) {
    SpawnSetup setup;
    setup.connectStreams(configuration, outputPipe);
    setup.changeDirectory(configuration.workingDirectory);
    setup.isolate(configuration);
    return setup.spawn(configuration);
}

}  // namespace lm::platform::posix
