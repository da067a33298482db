// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <csignal>
#include <iterator>

#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::posix {

// Turns SIGTERM, SIGINT and SIGHUP into bytes on a pipe that the event loop watches, so the
// termination they ask for runs on the main thread like any other request. The handler only
// writes one byte: nothing else is async-signal-safe enough to do there.
// One instance at a time; the previous handlers come back when it goes.
class TerminationSignals {
public:
    TerminationSignals();
    ~TerminationSignals();
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

    // Readable whenever a signal is pending; -1 when the pipe could not be made, in which
    // case the signals keep their default effect.
    int readDescriptor() const { return pipe_.readEnd.get(); }
    // How many signals arrived since the last call.
    int takePending();

private:
    static constexpr int watched[] = {SIGTERM, SIGINT, SIGHUP};

    Pipe pipe_;
    struct sigaction previous_[std::size(watched)] = {};
};

// A peer that went away (SIGPIPE), or a shell that put the launcher in its background (SIGTTIN,
// SIGTTOU), must not end the launcher; the write or read concerned fails instead.
void ignoreStreamSignals();

}  // namespace lm::platform::posix
