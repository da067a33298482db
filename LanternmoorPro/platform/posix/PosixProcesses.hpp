// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <memory>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::posix {

namespace detail {
struct Children;
}

// How the end of a child is noticed without polling.
enum class ExitWatch {
    // Through a pidfd where the system has them, else as `portable`.
    automatic,
    // A thread blocked in waitid() on that one child, which it does not reap.
    portable,
};

// Children started with posix_spawn, each in a process group of its own, and watched by one
// thread each: it reads a piped standard output while the child runs, reaps the child once it
// ends and reports it. Until the watch has reaped a child, its identifier cannot be reused, so
// signals go to it only before then. The watch outlives the process object, so a dropped child
// is still reaped and reported.
//
// Output streams: inherited, the null device, a pipe (both output streams given a pipe share
// one, read into capturedOutput) or a file handle of PosixFileSystem (both streams given the
// same handle share its descriptor and so its file position). Nothing is ever written to a
// child's input, so standard input given a pipe reads end of file like the null device.
class PosixProcesses final : public Processes {
public:
    explicit PosixProcesses(ExitWatch watch = ExitWatch::automatic);
    // Stops what stopAll() stops. Termination handlers are no longer called: what they report
    // to is usually gone with this object. The watches go on and still reap their children.
    ~PosixProcesses() override;
    PosixProcesses(const PosixProcesses&) = delete;
    PosixProcesses& operator=(const PosixProcesses&) = delete;

    std::shared_ptr<ChildProcess> create(ProcessConfiguration configuration) override;
    // SIGKILL to every child still running, group and all, but those that outlive the launcher.
    void stopAll();

private:
    std::shared_ptr<detail::Children> children_;
    ExitWatch watch_;
};

}  // namespace lm::platform::posix
