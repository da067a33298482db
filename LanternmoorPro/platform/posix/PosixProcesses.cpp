#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "LanternmoorPro/platform/posix/Spawn.hpp"

namespace lm::platform::posix {
namespace {

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
        auto spawned = spawnProcess(configuration_, pipe.value().writeEnd.get());
        if (!spawned) return spawned.error();
        // The parent's copy of the child's end would keep the pipe from ever ending.
        pipe.value().writeEnd.reset();
        {
            std::lock_guard lock(state_->mutex);
            state_->processIdentifier = spawned.value();
            state_->running = true;
            state_->outlivesLauncher = configuration_.outlivesLauncher;
        }
        if (auto failure = watchChild(state_, children_, watch_, std::move(pipe.value().readEnd), configuration_.executable)) {
            return abandon(*failure);
        }
        return std::nullopt;
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
