// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <memory>

#include "LanternmoorPro/platform/Processes.hpp"
#include "LanternmoorPro/platform/posix/ExitWatch.hpp"

namespace lm::platform::posix {

// Children started with posix_spawn (Spawn.hpp) and watched by a thread each (ExitWatch.hpp).
// Signals reach a child only until its watch has reaped it, so a recycled identifier is never hit.
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
    std::shared_ptr<Children> children_;
    ExitWatch watch_;
};

}  // namespace lm::platform::posix
