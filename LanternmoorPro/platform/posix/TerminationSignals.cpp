#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"

#include <cerrno>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace lm::platform::posix {
namespace {

// The handler cannot reach an object, so the pipe's write end is the one piece of global
// state; it is set before the handlers are installed and cleared after they are removed.
volatile std::sig_atomic_t signalPipe = -1;

extern "C" void writeSignalByte(int) {
    const int savedErrno = errno;
    const char byte = 1;
    // A full pipe already holds a pending request, so a lost byte loses nothing.
    [[maybe_unused]] auto written = ::write(signalPipe, &byte, 1);
    errno = savedErrno;
}

}  // namespace

TerminationSignals::TerminationSignals() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
    readEnd_ = ends[0];
    writeEnd_ = ends[1];
    signalPipe = writeEnd_;

    struct sigaction action = {};
    action.sa_handler = writeSignalByte;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t index = 0; index < std::size(watched); ++index) {
        ::sigaction(watched[index], &action, &previous_[index]);
    }
}

TerminationSignals::~TerminationSignals() {
    if (readEnd_ < 0) return;
    for (std::size_t index = 0; index < std::size(watched); ++index) {
        ::sigaction(watched[index], &previous_[index], nullptr);
    }
    signalPipe = -1;
    ::close(readEnd_);
    ::close(writeEnd_);
}

int TerminationSignals::takePending() {
    if (readEnd_ < 0) return 0;
    int count = 0;
    char bytes[64];
    ssize_t got = 0;
    while ((got = ::read(readEnd_, bytes, sizeof bytes)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) count += static_cast<int>(got);
    }
    return count;
}

void ignoreTerminalStreamSignals() {
    for (int signal : {SIGPIPE, SIGTTIN, SIGTTOU}) std::signal(signal, SIG_IGN);
}

}  // namespace lm::platform::posix
