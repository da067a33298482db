// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "LanternmoorPro/platform/Processes.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::posix {

// How the end of a child is noticed without polling.
enum class ExitWatch {
    // Through a pidfd where the system has them, else as `portable`.
    automatic,
    // A thread blocked in waitid() on that one child, which it does not reap.
    portable,
};

// What a process object and the watch of its child share; the watch writes while the main thread
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

    void keep(std::string_view bytes);
    // To the child alone, or to the process group it leads; nothing once it is reaped.
    void signal(int number, bool wholeGroup);
};

// The children not yet reaped, and the gate between every watch and the handler it reports to:
// once closed, no handler runs any more, not even one that was about to start.
struct Children {
    std::mutex mutex;
    bool reporting = true;
    std::vector<std::weak_ptr<ChildState>> live;

    void add(const std::shared_ptr<ChildState>& child);
    void report(const TerminationHandler& handler, pid_t processIdentifier);
};

// Starts the watch of a child just spawned: one thread that reads its piped output (if `output`
// holds the reading end) while it runs, reaps it once it has ended, stores its status and calls
// its handler. Until the watch has reaped a child, its identifier cannot be reused, so signals go
// to it only before then. The watch outlives the process object, so a dropped child is still
// reaped and reported. `program` names the child in an error.
Failure watchChild(std::shared_ptr<ChildState> state, std::shared_ptr<Children> children, ExitWatch how, Descriptor output,
                   const std::string& program);

}  // namespace lm::platform::posix
