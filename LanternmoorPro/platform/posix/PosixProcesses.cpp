#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#if !LM_PORTABLE
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"

extern char** environ;

namespace lm::platform::posix {

namespace detail {

// Everything the process object and its watch share; the watch writes while the main thread
// reads, so every field is guarded by `mutex`.
struct ChildState {
    std::mutex mutex;
    TerminationHandler handler;
    pid_t processIdentifier = 0;
    // Started and not yet reaped: only then may a signal use the identifier.
    bool running = false;
    bool outlivesLauncher = false;
    int status = 0;
    std::string output;

    void keep(std::string_view bytes) {
        std::lock_guard lock(mutex);
        auto room = ChildProcess::capturedOutputLimit + 1 - output.size();
        output.append(bytes.substr(0, std::min(room, bytes.size())));
    }

    void signal(int number, bool wholeGroup) {
        std::lock_guard lock(mutex);
        if (running) ::kill(wholeGroup ? -processIdentifier : processIdentifier, number);
    }
};

// The children not yet reaped, and the gate between every watch and the handler it reports to:
// once closed, no handler runs any more, not even one that was about to start.
struct Children {
    std::mutex mutex;
    bool reporting = true;
    std::vector<std::weak_ptr<ChildState>> live;

    void add(const std::shared_ptr<ChildState>& child) {
        std::lock_guard lock(mutex);
        std::erase_if(live, [](const auto& entry) { return entry.expired(); });
        live.push_back(child);
    }
    void report(const TerminationHandler& handler, std::int32_t processIdentifier) {
        std::lock_guard lock(mutex);
        if (reporting && handler) handler(processIdentifier);
    }
};

}  // namespace detail

namespace {

using detail::ChildState;
using detail::Children;

// An exit status for a child whose end could not be read (someone else reaped it).
constexpr int unknownExit = 255;

// Signals meant for the launcher belong to the thread that handles them, never to a watch.
void blockSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

// Reads the child's output while it runs, reaps it once its exit notice says it has ended, and
// reports the end. One thread per child: the launcher runs at most a service and one version
// probe at a time, and a thread that only waits on its own child needs no registry, no wake-up
// channel and no bookkeeping of which descriptor belongs to whom.
class Watch {
public:
    Watch(std::shared_ptr<ChildState> state, std::shared_ptr<Children> children, pid_t processIdentifier,
          Descriptor exitNotice, Descriptor output)
        : state_(std::move(state)),
          children_(std::move(children)),
          processIdentifier_(processIdentifier),
          exitNotice_(std::move(exitNotice)),
          output_(std::move(output)) {}

    void operator()() {
        blockSignals();
        waitForExit();
        {
            std::lock_guard lock(state_->mutex);
            state_->running = false;
        }
        auto status = reap();
        drainOutput();
        finish(status);
    }

private:
    enum class Read { data, nothingYet, ended };

    void waitForExit() {
        for (;;) {
            // poll skips a negative descriptor, so an ended output simply drops out of the watch.
            std::array<pollfd, 2> watched{{{exitNotice_.get(), POLLIN, 0}, {output_.get(), POLLIN, 0}}};
            if (::poll(watched.data(), watched.size(), -1) < 0) continue;  // a passing lack of memory
            if (watched[1].revents != 0) (void)readOutput();
            if (watched[0].revents != 0) return;
        }
    }

    int reap() const {
        int status = 0;
        if (retryingInterrupted([&] { return ::waitpid(processIdentifier_, &status, 0); }) < 0) return unknownExit;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        return unknownExit;
    }

    // Only what already waits in the pipe is read after the exit: a grandchild that still holds
    // the pipe open, or keeps writing to it, must not hold the report back.
    void drainOutput() {
        constexpr int maximumReads = 32;  // well over the largest pipe buffer Linux allows by default
        for (int reads = 0; reads < maximumReads && readOutput() == Read::data; ++reads) {
        }
        output_.reset();
    }

    Read readOutput() {
        if (!output_) return Read::ended;
        auto count = ::read(output_.get(), buffer_.data(), buffer_.size());
        if (count > 0) {
            state_->keep({buffer_.data(), static_cast<std::size_t>(count)});
            return Read::data;
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return Read::nothingYet;
        output_.reset();
        return Read::ended;
    }

    void finish(int status) {
        TerminationHandler handler;
        {
            std::lock_guard lock(state_->mutex);
            state_->status = status;
            handler = std::move(state_->handler);
        }
        children_->report(handler, processIdentifier_);
    }

    std::shared_ptr<ChildState> state_;
    std::shared_ptr<Children> children_;
    pid_t processIdentifier_;
    Descriptor exitNotice_;
    Descriptor output_;
    std::vector<char> buffer_ = std::vector<char>(64 * 1024);
};

// A descriptor that becomes readable once the child has ended, while it is not yet reaped.
Result<Descriptor> exitNoticeFor(pid_t processIdentifier, [[maybe_unused]] ExitWatch watch) {
#if !LM_PORTABLE
    if (watch == ExitWatch::automatic) {
        Descriptor processDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, processIdentifier, 0)));
        if (processDescriptor) return processDescriptor;
        // Kernels before 5.3 and some sandboxes have no pidfds; the portable watch serves there.
    }
#endif
    auto pipe = makePipe(NonBlocking::none);
    if (!pipe) return pipe.error();
    try {
        // WNOWAIT leaves the child for the watch to reap; the pipe's end closing is the notice.
        std::thread([processIdentifier, notice = std::move(pipe.value().writeEnd)] {
            blockSignals();
            siginfo_t info{};
            (void)retryingInterrupted([&] { return ::waitid(P_PID, processIdentifier, &info, WEXITED | WNOWAIT); });
        }).detach();
    } catch (const std::system_error& failure) {
        return Error::fromSyscall("pthread_create", failure.code().value(), "");
    }
    return std::move(pipe.value().readEnd);
}

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

int descriptorOf(const std::shared_ptr<FileHandle>& file) {
    const auto* handle = dynamic_cast<const PosixFileHandle*>(file.get());
    return handle != nullptr ? handle->descriptor() : -1;  // adddup2 rejects -1 with EBADF
}

bool needsOutputPipe(const ProcessConfiguration& configuration) {
    return configuration.standardOutput.kind == Stream::Kind::pipe ||
           configuration.standardError.kind == Stream::Kind::pipe;
}

// The file actions and attributes of one start, released whatever happens. The first error
// of any step is kept and reported by spawn().
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

    // All duplications come before any opening, so a stream whose descriptor happens to be
    // 0, 1 or 2 is copied before the null device can take that number over.
    void connectStreams(const ProcessConfiguration& configuration, int pipeInput) {
        const std::array<std::pair<int, const Stream*>, 3> streams{{{STDIN_FILENO, &configuration.standardInput},
                                                                    {STDOUT_FILENO, &configuration.standardOutput},
                                                                    {STDERR_FILENO, &configuration.standardError}}};
        for (const auto& [target, stream] : streams) duplicate(target, *stream, pipeInput);
        for (const auto& [target, stream] : streams) openNullDevice(target, *stream);
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
    void duplicate(int target, const Stream& stream, int pipeInput) {
        auto output = target != STDIN_FILENO;
        if (stream.kind == Stream::Kind::file) duplicate(descriptorOf(stream.file), target);
        if (stream.kind == Stream::Kind::pipe && output) duplicate(pipeInput, target);
    }

    void duplicate(int source, int target) { note(::posix_spawn_file_actions_adddup2(&actions_, source, target)); }

    void openNullDevice(int target, const Stream& stream) {
        auto input = target == STDIN_FILENO;
        if (stream.kind != Stream::Kind::nullDevice && !(input && stream.kind == Stream::Kind::pipe)) return;
        note(::posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", input ? O_RDONLY : O_WRONLY, 0));
    }

    void note(int error) {
        if (error_ == 0) error_ = error;
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    int error_ = 0;
};

class PosixChildProcess final : public ChildProcess {
public:
    PosixChildProcess(ProcessConfiguration configuration, std::shared_ptr<Children> children, ExitWatch watch)
        : configuration_(std::move(configuration)), children_(std::move(children)), watch_(watch) {}

    void setTerminationHandler(TerminationHandler handler) override {
        std::lock_guard lock(state_->mutex);
        state_->handler = std::move(handler);
    }

    Failure start() override {
        if (started_) return Error::fromSyscall("posix_spawn", EALREADY, configuration_.executable);
        started_ = true;
        auto pipe = needsOutputPipe(configuration_) ? makePipe(NonBlocking::readEnd) : Result<Pipe>(Pipe{});
        if (!pipe) return pipe.error();
        SpawnSetup setup;
        setup.connectStreams(configuration_, pipe.value().writeEnd.get());
        setup.changeDirectory(configuration_.workingDirectory);
        setup.isolate(configuration_);
        auto spawned = setup.spawn(configuration_);
        if (!spawned) return spawned.error();
        // The parent's copy of the child's end would keep the pipe from ever ending.
        pipe.value().writeEnd.reset();
        return watch(spawned.value(), std::move(pipe.value().readEnd));
    }

    bool isRunning() const override {
        std::lock_guard lock(state_->mutex);
        return state_->running;
    }

    std::int32_t processIdentifier() const override {
        std::lock_guard lock(state_->mutex);
        return state_->processIdentifier;
    }

    bool includes(std::int64_t processIdentifier) const override {
        std::lock_guard lock(state_->mutex);
        if (state_->processIdentifier == 0) return false;
        if (processIdentifier == state_->processIdentifier) return true;
        // The group is ours only while its leader is not reaped.
        if (!state_->running || processIdentifier <= 0 || processIdentifier > INT_MAX) return false;
        return ::getpgid(static_cast<pid_t>(processIdentifier)) == state_->processIdentifier;
    }

    int terminationStatus() const override {
        std::lock_guard lock(state_->mutex);
        return state_->status;
    }

    std::string capturedOutput() const override {
        std::lock_guard lock(state_->mutex);
        return state_->output;
    }

    void terminate() override { state_->signal(SIGTERM, false); }
    void kill() override { state_->signal(SIGKILL, true); }

private:
    Failure watch(pid_t processIdentifier, Descriptor output) {
        {
            std::lock_guard lock(state_->mutex);
            state_->processIdentifier = processIdentifier;
            state_->running = true;
            state_->outlivesLauncher = configuration_.outlivesLauncher;
        }
        auto exitNotice = exitNoticeFor(processIdentifier, watch_);
        if (!exitNotice) return abandon(exitNotice.error());
        try {
            std::thread(Watch(state_, children_, processIdentifier, exitNotice.release(), std::move(output))).detach();
        } catch (const std::system_error& failure) {
            return abandon(Error::fromSyscall("pthread_create", failure.code().value(), configuration_.executable));
        }
        children_->add(state_);
        return std::nullopt;
    }

    // A child that was started but cannot be watched must not run on unobserved, nor stay a
    // zombie. Its identifier cannot have been reused, since it was never reaped.
    Failure abandon(Error error) {
        state_->signal(SIGKILL, true);
        {
            std::lock_guard lock(state_->mutex);
            state_->running = false;
        }
        (void)retryingInterrupted([&] { return ::waitpid(state_->processIdentifier, nullptr, 0); });
        return error;
    }

    ProcessConfiguration configuration_;
    std::shared_ptr<Children> children_;
    ExitWatch watch_;
    std::shared_ptr<ChildState> state_ = std::make_shared<ChildState>();
    bool started_ = false;
};

}  // namespace

PosixProcesses::PosixProcesses(ExitWatch watch) : children_(std::make_shared<Children>()), watch_(watch) {}

PosixProcesses::~PosixProcesses() {
    {
        std::lock_guard lock(children_->mutex);
        children_->reporting = false;
    }
    stopAll();
}

std::shared_ptr<ChildProcess> PosixProcesses::create(ProcessConfiguration configuration) {
    return std::make_shared<PosixChildProcess>(std::move(configuration), children_, watch_);
}

void PosixProcesses::stopAll() {
    std::lock_guard lock(children_->mutex);
    for (const auto& entry : children_->live) {
        if (auto child = entry.lock(); child && !child->outlivesLauncher) child->signal(SIGKILL, true);
    }
}

}  // namespace lm::platform::posix
