#include "LanternmoorPro/platform/posix/System.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lm::platform::posix {
namespace {

Failure setFlag(int descriptor, int getCommand, int setCommand, int flag) {
    const int flags = ::fcntl(descriptor, getCommand);
    if (flags < 0 || ::fcntl(descriptor, setCommand, flags | flag) < 0) return Error::fromSyscall("fcntl", errno, "");
    return std::nullopt;
}

Failure closeOnExec(int descriptor) { return setFlag(descriptor, F_GETFD, F_SETFD, FD_CLOEXEC); }
Failure setNonBlocking(int descriptor) { return setFlag(descriptor, F_GETFL, F_SETFL, O_NONBLOCK); }

}  // namespace

void Descriptor::reset() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

Failure writeAll(int descriptor, std::string_view bytes, const std::string& subject) {
    while (!bytes.empty()) {
        const auto written = retryingInterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
        if (written < 0) return Error::fromSyscall("write", errno, subject);
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return std::nullopt;
}

Result<Pipe> makePipe(NonBlocking nonBlocking) {
    int ends[2];
#if LM_PORTABLE
    // Another thread may spawn between pipe() and fcntl(); ours only spawn on the main thread,
    // which is also the only one making pipes.
    if (::pipe(ends) != 0) return Error::fromSyscall("pipe", errno, "");
    Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
    for (int end : ends) {
        if (auto failure = closeOnExec(end)) return *failure;
    }
#else
    if (::pipe2(ends, O_CLOEXEC) != 0) return Error::fromSyscall("pipe", errno, "");
    Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
#endif
    if (nonBlocking != NonBlocking::none) {
        if (auto failure = setNonBlocking(pipe.readEnd.get())) return *failure;
    }
    if (nonBlocking == NonBlocking::bothEnds) {
        if (auto failure = setNonBlocking(pipe.writeEnd.get())) return *failure;
    }
    return pipe;
}

Result<Descriptor> makeStreamSocket() {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
    if (!socket) return Error::fromSyscall("socket", errno, "127.0.0.1");
    if (auto failure = closeOnExec(socket.get())) return *failure;
    if (auto failure = setNonBlocking(socket.get())) return *failure;
    return socket;
}

void ensureStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest free number is this one, as the ones below it are open by now.
        const int opened = ::open("/dev/null", O_RDWR);
        if (opened >= 0 && opened != descriptor) {
            ::dup2(opened, descriptor);
            ::close(opened);
        }
    }
}

}  // namespace lm::platform::posix
