#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>

#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::posix {
namespace {

constexpr auto attemptLimit = std::chrono::milliseconds(1000);

}  // namespace

bool PosixNetwork::loopbackAcceptsConnections(std::uint16_t port) {
    auto socket = makeStreamSocket();
    if (!socket) return false;
    const int descriptor = socket.value().get();

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);

    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
    if (errno != EINPROGRESS) return false;
    // A signal that interrupts the wait counts as "not accepted" like any other failure: waiting
    // again would start a fresh second and could double the wait.
    pollfd writable{descriptor, POLLOUT, 0};
    if (::poll(&writable, 1, static_cast<int>(attemptLimit.count())) != 1) return false;
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

}  // namespace lm::platform::posix
