#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace lm::platform::posix {
namespace {

// Owns one descriptor and closes it on every way out.
class Socket {
public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool isOpen() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

}  // namespace

bool PosixNetwork::loopbackAcceptsConnections(std::uint16_t port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen()) return false;

    // Unchecked on purpose: without the time-out the attempt still runs, only unbounded.
    timeval sendTimeout{.tv_sec = 1, .tv_usec = 0};
    ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);

    // A signal that interrupts the attempt (EINTR) counts as "not accepted" like any other
    // failure: connecting again would start a fresh second and could double the wait.
    return ::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace lm::platform::posix
