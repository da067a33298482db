#include "LanternmoorPro/platform/posix/ExitWatch.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#if !LM_PORTABLE
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <array>
#include <system_error>
#include <thread>
#include <utility>

namespace lm::platform::posix {

void ChildState::keep(std::string_view bytes) {
    std::lock_guard lock(mutex);
    auto room = ChildProcess::capturedOutputLimit + 1 - output.size();
    output.append(bytes.substr(0, std::min(room, bytes.size())));
}

void ChildState::signal(int number, bool wholeGroup) {
    std::lock_guard lock(mutex);
    if (running) ::kill(wholeGroup ? -processIdentifier : processIdentifier, number);
}

void Children::add(const std::shared_ptr<ChildState>& child) {
    std::lock_guard lock(mutex);
    std::erase_if(live, [](const auto& entry) { return entry.expired(); });
    live.push_back(child);
}

void Children::report(const TerminationHandler& handler, pid_t processIdentifier) {
    std::lock_guard lock(mutex);
    if (reporting && handler) handler(processIdentifier);
}

namespace {

// An exit status for a child whose end could not be read (someone else reaped it).
constexpr int unknownExit = 255;

// Signals meant for the launcher belong to the thread that handles them, never to a watch.
void blockSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

// One thread per child: the launcher runs at most a service and one version probe at a time,
// and a thread that only waits on its own child needs no registry, no wake-up channel and no
// bookkeeping of which descriptor belongs to whom.
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
            // Only a passing lack of memory can fail it here: every signal is blocked.
            if (::poll(watched.data(), watched.size(), -1) < 0) continue;
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
        auto count = retryingInterrupted([&] { return ::read(output_.get(), buffer_.data(), buffer_.size()); });
        if (count > 0) {
            state_->keep({buffer_.data(), static_cast<std::size_t>(count)});
            return Read::data;
        }
        if (count < 0 && errno == EAGAIN) return Read::nothingYet;
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
Result<Descriptor> exitNoticeFor(pid_t processIdentifier, [[maybe_unused]] ExitWatch how, const std::string& program) {
#if !LM_PORTABLE
    if (how == ExitWatch::automatic) {
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
        return Error::fromSyscall("pthread_create", failure.code().value(), program);
    }
    return std::move(pipe.value().readEnd);
}

}  // namespace

Failure watchChild(std::shared_ptr<ChildState> state, std::shared_ptr<Children> children, ExitWatch how, Descriptor output,
                   const std::string& program) {
    const auto processIdentifier = state->processIdentifier;
    auto exitNotice = exitNoticeFor(processIdentifier, how, program);
    if (!exitNotice) return exitNotice.error();
    try {
        std::thread(Watch(state, children, processIdentifier, exitNotice.release(), std::move(output))).detach();
    } catch (const std::system_error& failure) {
        return Error::fromSyscall("pthread_create", failure.code().value(), program);
    }
    children->add(state);
    return std::nullopt;
}

}  // namespace lm::platform::posix
