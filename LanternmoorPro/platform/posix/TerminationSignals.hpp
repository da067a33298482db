// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <csignal>
#include <iterator>

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
    int readDescriptor() const { return readEnd_; }
    // How many signals arrived since the last call.
    int takePending();

private:
    static constexpr int watched[] = {SIGTERM, SIGINT, SIGHUP};

    int readEnd_ = -1;
    int writeEnd_ = -1;
    struct sigaction previous_[std::size(watched)] = {};
};

// A launcher whose terminal went away (SIGPIPE) or that runs in the background of a shell
// (SIGTTIN, SIGTTOU) keeps running; its writes and reads then fail instead.
void ignoreTerminalStreamSignals();

}  // namespace lm::platform::posix
