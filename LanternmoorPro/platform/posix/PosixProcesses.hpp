// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <memory>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::posix {

namespace detail {
struct HandlerGate;
}

// Children started with posix_spawn and watched through a pidfd by one thread each: the thread
// reads a piped standard output while the child runs, reaps the child once it ends and reports
// it. The watch outlives the process object, so a dropped child is still reaped and reported.
//
// Output streams: inherited, the null device, a pipe (both output streams given a pipe share
// one, read into capturedOutput) or a file handle of PosixFileSystem (both streams given the
// same handle share its descriptor and so its file position). Nothing is ever written to a
// child's input, so standard input given a pipe reads end of file like the null device.
class PosixProcesses final : public Processes {
public:
    PosixProcesses();
    // Termination handlers of children still running are dropped: what they report to is
    // usually gone with this object. Their watches go on and still reap them.
    ~PosixProcesses() override;
    PosixProcesses(const PosixProcesses&) = delete;
    PosixProcesses& operator=(const PosixProcesses&) = delete;

    std::shared_ptr<ChildProcess> create(ProcessConfiguration configuration) override;

private:
    std::shared_ptr<detail::HandlerGate> gate_;
};

}  // namespace lm::platform::posix
