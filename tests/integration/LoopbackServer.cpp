#include "LoopbackServer.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace lm::testing {
namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A listening socket on 127.0.0.1 and a port the system picks; throws when there is none.
int listenOnEphemeralPort(int backlog, std::uint16_t& port) {
    int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) throw std::runtime_error("socket failed");
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(descriptor, backlog) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(descriptor);
        throw std::runtime_error("listening on 127.0.0.1 failed");
    }
    port = ntohs(address.sin_port);
    return descriptor;
}

int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

}  // namespace

// ---- Peer ----------------------------------------------------------------------------------

Peer::~Peer() { ::close(descriptor_); }

Peer::Wait Peer::waitReadable(std::chrono::steady_clock::time_point deadline) const {
    pollfd watched[2] = {{descriptor_, POLLIN, 0}, {stopDescriptor_, POLLIN, 0}};
    int ready = ::poll(watched, 2, millisecondsUntil(deadline));
    if (ready > 0 && watched[1].revents != 0) return Wait::stopping;
    if (ready > 0) return Wait::readable;
    if (ready < 0 && errno == EINTR) return waitReadable(deadline);
    return Wait::timedOut;
}

// False once the client has closed or reset the connection.
bool Peer::readSome() {
    char buffer[16 * 1024];
    auto count = ::recv(descriptor_, buffer, sizeof buffer, 0);
    if (count <= 0) {
        visit.clientClosed = true;
        return false;
    }
    visit.received.append(buffer, static_cast<std::size_t>(count));
    return true;
}

std::string Peer::readHead(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (visit.received.find("\r\n\r\n") == std::string::npos) {
        if (waitReadable(deadline) != Wait::readable || !readSome()) break;
    }
    return visit.received.substr(0, visit.received.find("\r\n\r\n"));
}

bool Peer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        auto count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        visit.bytesSent += static_cast<std::size_t>(count);
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool Peer::awaitClose(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (waitReadable(deadline) == Wait::readable) {
        if (!readSome()) return true;
    }
    return false;
}

bool Peer::pause(std::chrono::milliseconds duration) {
    pollfd stop{stopDescriptor_, POLLIN, 0};
    return ::poll(&stop, 1, static_cast<int>(duration.count())) == 0;
}

// ---- LoopbackServer ---------------------------------------------------------------------------

LoopbackServer::LoopbackServer(Script script) : script_(std::move(script)) {
    listener_ = listenOnEphemeralPort(SOMAXCONN, port_);
    if (::pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
    // Closing the write end wakes every wait at once.
    ::close(stopPipe_[1]);
    acceptor_.join();
    for (auto& peer : peers_) peer.join();
    ::close(stopPipe_[0]);
    ::close(listener_);
}

void LoopbackServer::acceptLoop() {
    for (;;) {
        pollfd watched[2] = {{listener_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0 && errno == EINTR) continue;
        if (watched[1].revents != 0) return;
        int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) continue;
        ++accepted_;
        peers_.emplace_back([this, descriptor] { serve(descriptor); });
    }
}

void LoopbackServer::serve(int descriptor) {
    Peer peer(descriptor, stopPipe_[0]);
    script_(peer);
    std::lock_guard lock(mutex_);
    visits_.push_back(peer.visit);
    visitsChanged_.notify_all();
}

std::vector<Visit> LoopbackServer::awaitVisits(std::size_t count, std::chrono::milliseconds limit) {
    return await(count, limit, [](const Visit&) { return true; });
}

std::vector<Visit> LoopbackServer::awaitRequests(std::size_t count, std::chrono::milliseconds limit) {
    return await(count, limit, [](const Visit& visit) { return !visit.received.empty(); });
}

std::vector<Visit> LoopbackServer::await(std::size_t count, std::chrono::milliseconds limit,
                                         bool (*counts)(const Visit&)) {
    std::vector<Visit> counted;
    std::unique_lock lock(mutex_);
    visitsChanged_.wait_for(lock, limit, [&] {
        counted.clear();
        std::copy_if(visits_.begin(), visits_.end(), std::back_inserter(counted), counts);
        return counted.size() >= count;
    });
    return counted;
}

// ---- IdleListener, unusedLoopbackPort, Client ---------------------------------------------------

IdleListener::IdleListener(int backlog) { listener_ = listenOnEphemeralPort(backlog, port_); }

IdleListener::~IdleListener() { ::close(listener_); }

std::uint16_t unusedLoopbackPort() {
    std::uint16_t port = 0;
    ::close(listenOnEphemeralPort(1, port));
    return port;
}

Client::Client(std::uint16_t port) {
    descriptor_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    auto address = loopback(port);
    if (::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        connected_ = true;
        return;
    }
    if (errno != EINPROGRESS) return;
    pollfd writable{descriptor_, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    connected_ = ::poll(&writable, 1, 300) == 1 &&
                 ::getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

Client::~Client() { ::close(descriptor_); }

}  // namespace lm::testing
