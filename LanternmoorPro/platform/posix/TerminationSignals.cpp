#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"

#include <unistd.h>

#include <cerrno>
#include <initializer_list>

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
    auto pipe = makePipe(NonBlocking::bothEnds);
    if (!pipe) return;
    pipe_ = std::move(pipe.value());
    signalPipe = pipe_.writeEnd.get();

    struct sigaction action = {};
    action.sa_handler = writeSignalByte;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t index = 0; index < std::size(watched); ++index) {
        ::sigaction(watched[index], &action, &previous_[index]);
    }
}

TerminationSignals::~TerminationSignals() {
    if (!pipe_.readEnd) return;
    for (std::size_t index = 0; index < std::size(watched); ++index) {
        ::sigaction(watched[index], &previous_[index], nullptr);
    }
    signalPipe = -1;
}

int TerminationSignals::takePending() {
    if (!pipe_.readEnd) return 0;
    int count = 0;
    char bytes[64];
    for (ssize_t got; (got = retryingInterrupted([&] { return ::read(readDescriptor(), bytes, sizeof bytes); })) > 0;) {
        count += static_cast<int>(got);
    }
    return count;
}

void ignoreStreamSignals() {
    for (int signal : {SIGPIPE, SIGTTIN, SIGTTOU}) std::signal(signal, SIG_IGN);
}

}  // namespace lm::platform::posix
