#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"

namespace lm::platform::posix {

namespace detail {

// Stands between every watch and the handler it reports to, so that once the owner has closed
// it no handler runs any more, not even one that was about to start.
struct HandlerGate {
    std::mutex mutex;
    bool open = true;

    void report(const TerminationHandler& handler, std::int32_t processIdentifier) {
        std::lock_guard lock(mutex);
        if (open && handler) handler(processIdentifier);
    }
    void close() {
        std::lock_guard lock(mutex);
        open = false;
    }
};

}  // namespace detail

namespace {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    void reset() {
        if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
    }

private:
    int descriptor_ = -1;
};

// Everything the process object and its watch share; the watch writes while the main thread
// reads, so every field is guarded by `mutex`.
struct ChildState {
    std::mutex mutex;
    TerminationHandler handler;
    std::int32_t processIdentifier = 0;
    Descriptor processDescriptor;  // open from the start until the child is reaped
    bool running = false;
    int status = 0;
    std::string output;

    void keep(std::string_view bytes) {
        std::lock_guard lock(mutex);
        auto room = ChildProcess::capturedOutputLimit + 1 - output.size();
        output.append(bytes.substr(0, std::min(room, bytes.size())));
    }
};

// An exit status for a child whose end could not be read (someone else reaped it).
constexpr int unknownExit = 255;

// Reads the child's output while it runs, reaps it once its pidfd says it has ended, and
// reports the end. One thread per child: the launcher runs at most a service and one version
// probe at a time, and a thread that only waits on its own child needs no registry, no wake-up
// channel and no bookkeeping of which descriptor belongs to whom.
class Watch {
public:
    Watch(std::shared_ptr<ChildState> state, std::shared_ptr<detail::HandlerGate> gate, pid_t processIdentifier,
          int processDescriptor, Descriptor output)
        : state_(std::move(state)),
          gate_(std::move(gate)),
          processIdentifier_(processIdentifier),
          processDescriptor_(processDescriptor),
          output_(std::move(output)) {}

    void operator()() {
        blockSignals();
        waitForExit();
        auto status = reap();
        drainOutput();
        finish(status);
    }

private:
    enum class Read { data, nothingYet, ended };

    // Signals meant for the launcher belong to the thread that handles them, never to a watch.
    static void blockSignals() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    }

    void waitForExit() {
        for (;;) {
            // poll skips a negative descriptor, so an ended output simply drops out of the watch.
            std::array<pollfd, 2> watched{{{processDescriptor_, POLLIN, 0}, {output_.get(), POLLIN, 0}}};
            if (::poll(watched.data(), watched.size(), -1) < 0) continue;  // EINTR or a passing lack of memory
            if (watched[1].revents != 0) (void)readOutput();
            if (watched[0].revents != 0) return;
        }
    }

    int reap() const {
        int status = 0;
        pid_t reaped = 0;
        do {
            reaped = ::waitpid(processIdentifier_, &status, 0);
        } while (reaped < 0 && errno == EINTR);
        if (reaped < 0) return unknownExit;
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
            state_->running = false;
            state_->status = status;
            state_->processDescriptor.reset();
            handler = std::move(state_->handler);
        }
        gate_->report(handler, processIdentifier_);
    }

    std::shared_ptr<ChildState> state_;
    std::shared_ptr<detail::HandlerGate> gate_;
    pid_t processIdentifier_;
    int processDescriptor_;
    Descriptor output_;
    std::vector<char> buffer_ = std::vector<char>(64 * 1024);
};

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
    // signals when it spawns; a child must start with none of that.
    void resetSignals() {
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        note(::posix_spawnattr_setsigmask(&attributes_, &none));
        note(::posix_spawnattr_setsigdefault(&attributes_, &all));
        note(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }

    Result<pid_t> spawn(const ProcessConfiguration& configuration) {
        if (error_ != 0) return Error::fromSyscall("posix_spawn", error_, configuration.executable);
        auto arguments = argumentsOf(configuration);
        auto environment = environmentOf(configuration.environment.value_or(EnvironmentVariables{}));
        auto* variables = configuration.environment ? environment.get() : environ;
        pid_t processIdentifier = 0;
        auto error = ::posix_spawn(&processIdentifier, programPath(configuration).c_str(), &actions_, &attributes_,
                                   arguments.get(), variables);
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

struct Pipe {
    Descriptor output;  // the end the watch reads
    Descriptor input;   // the end the child writes
};

Result<Pipe> outputPipe(const std::string& executable) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return Error::fromSyscall("pipe", errno, executable);
    Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
    // Only the reading end: the child's end stays blocking, as every program expects.
    ::fcntl(pipe.output.get(), F_SETFL, O_NONBLOCK);
    return pipe;
}

// For a child that was started but cannot be watched: it must not run on unobserved, nor
// stay a zombie. Its identifier cannot have been reused, since it was never reaped.
void killAndReap(pid_t processIdentifier) {
    ::kill(processIdentifier, SIGKILL);
    while (::waitpid(processIdentifier, nullptr, 0) < 0 && errno == EINTR) {
    }
}

class PosixChildProcess final : public ChildProcess {
public:
    PosixChildProcess(ProcessConfiguration configuration, std::shared_ptr<detail::HandlerGate> gate)
        : configuration_(std::move(configuration)), gate_(std::move(gate)) {}

    void setTerminationHandler(TerminationHandler handler) override {
        std::lock_guard lock(state_->mutex);
        state_->handler = std::move(handler);
    }

    Failure start() override {
        if (started_) return Error::fromSyscall("posix_spawn", EALREADY, configuration_.executable);
        started_ = true;
        auto pipe = needsOutputPipe(configuration_) ? outputPipe(configuration_.executable) : Result<Pipe>(Pipe{});
        if (!pipe) return pipe.error();
        SpawnSetup setup;
        setup.connectStreams(configuration_, pipe.value().input.get());
        setup.changeDirectory(configuration_.workingDirectory);
        setup.resetSignals();
        auto spawned = setup.spawn(configuration_);
        if (!spawned) return spawned.error();
        // The parent's copy of the child's end would keep the pipe from ever ending.
        pipe.value().input.reset();
        return watch(spawned.value(), std::move(pipe.value().output));
    }

    bool isRunning() const override {
        std::lock_guard lock(state_->mutex);
        return state_->running;
    }

    std::int32_t processIdentifier() const override {
        std::lock_guard lock(state_->mutex);
        return state_->processIdentifier;
    }

    int terminationStatus() const override {
        std::lock_guard lock(state_->mutex);
        return state_->status;
    }

    std::string capturedOutput() const override {
        std::lock_guard lock(state_->mutex);
        return state_->output;
    }

    void terminate() override { signal(SIGTERM); }
    void kill() override { signal(SIGKILL); }

private:
    Failure watch(pid_t processIdentifier, Descriptor output) {
        auto processDescriptor = static_cast<int>(::syscall(SYS_pidfd_open, processIdentifier, 0));
        if (processDescriptor < 0) {
            auto error = errno;
            killAndReap(processIdentifier);
            return Error::fromSyscall("pidfd_open", error, configuration_.executable);
        }
        {
            std::lock_guard lock(state_->mutex);
            state_->processIdentifier = processIdentifier;
            state_->processDescriptor = Descriptor(processDescriptor);
            state_->running = true;
        }
        try {
            std::thread(Watch(state_, gate_, processIdentifier, processDescriptor, std::move(output))).detach();
        } catch (const std::system_error& failure) {
            forget();
            killAndReap(processIdentifier);
            return Error::fromSyscall("pthread_create", failure.code().value(), configuration_.executable);
        }
        return std::nullopt;
    }

    void forget() {
        std::lock_guard lock(state_->mutex);
        state_->running = false;
        state_->processDescriptor.reset();
    }

    // Through the pidfd: once the child is reaped its identifier may belong to someone else,
    // but the pidfd still names the ended child and the signal goes nowhere.
    void signal(int number) {
        std::lock_guard lock(state_->mutex);
        if (!state_->running) return;
        ::syscall(SYS_pidfd_send_signal, state_->processDescriptor.get(), number, nullptr, 0);
    }

    ProcessConfiguration configuration_;
    std::shared_ptr<detail::HandlerGate> gate_;
    std::shared_ptr<ChildState> state_ = std::make_shared<ChildState>();
    bool started_ = false;
};

}  // namespace

PosixProcesses::PosixProcesses() : gate_(std::make_shared<detail::HandlerGate>()) {}

PosixProcesses::~PosixProcesses() { gate_->close(); }

std::shared_ptr<ChildProcess> PosixProcesses::create(ProcessConfiguration configuration) {
    return std::make_shared<PosixChildProcess>(std::move(configuration), gate_);
}

}  // namespace lm::platform::posix
