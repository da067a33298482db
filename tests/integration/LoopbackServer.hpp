// A scripted TCP server on 127.0.0.1 and an ephemeral port, for tests and benchmarks that need
// a real other end whose every byte and pause they control. Each connection runs the script on
// a thread of its own, so a slow connection never holds up the next one.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace lm::testing {

using namespace std::chrono_literals;

inline sockaddr_in loopback(std::uint16_t port) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
}

inline int listenOnLoopback(int backlog, std::uint16_t& port) {
    int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(descriptor, backlog) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("listening on 127.0.0.1 failed");
    }
    port = ntohs(address.sin_port);
    return descriptor;
}

// Free a moment ago, so nothing listens there.
inline std::uint16_t unusedLoopbackPort() {
    std::uint16_t port = 0;
    ::close(listenOnLoopback(1, port));
    return port;
}

struct Visit {
    std::string received;
    std::size_t bytesSent = 0;
    bool clientClosed = false;  // EOF or reset from the client before the script ended
};

// The server's side of one connection; every wait also ends when the server stops.
class Peer {
public:
    Peer(int descriptor, int stop) : descriptor_(descriptor), stop_(stop) {}
    ~Peer() { ::close(descriptor_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // The request line and headers; less when the client stops sending.
    std::string readHead(std::chrono::milliseconds limit = 3s) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (visit.received.find("\r\n\r\n") == std::string::npos && readSome(deadline)) {}
        return visit.received.substr(0, visit.received.find("\r\n\r\n"));
    }
    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            auto count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return false;
            visit.bytesSent += static_cast<std::size_t>(count);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }
    // True when the client closed within `limit`.
    bool awaitClose(std::chrono::milliseconds limit = 3s) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (readSome(deadline)) {}
        return visit.clientClosed;
    }
    // False when the server is stopping.
    bool pause(std::chrono::milliseconds duration) {
        pollfd stop{stop_, POLLIN, 0};
        return ::poll(&stop, 1, static_cast<int>(duration.count())) == 0;
    }

    Visit visit;

private:
    bool readSome(std::chrono::steady_clock::time_point deadline) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd watched[2] = {{descriptor_, POLLIN, 0}, {stop_, POLLIN, 0}};
        int ready = ::poll(watched, 2, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) return readSome(deadline);
        if (ready <= 0 || watched[1].revents != 0) return false;
        char buffer[16 * 1024];
        auto count = ::recv(descriptor_, buffer, sizeof buffer, 0);
        if (count <= 0) visit.clientClosed = true;
        if (count <= 0) return false;
        visit.received.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    int descriptor_;
    int stop_;
};

// Without a script it listens but never accepts, so its queue fills after `backlog` attempts.
class LoopbackServer {
public:
    using Script = std::function<void(Peer&)>;

    explicit LoopbackServer(Script script, int backlog = SOMAXCONN) : script_(std::move(script)) {
        listener_ = listenOnLoopback(backlog, port_);
        if (::pipe2(stop_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        if (script_) acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~LoopbackServer() {
        ::close(stop_[1]);  // wakes every wait at once
        if (acceptor_.joinable()) acceptor_.join();
        for (auto& peer : peers_) peer.join();
        ::close(stop_[0]);
        ::close(listener_);
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    std::uint16_t port() const { return port_; }
    int connectionsAccepted() const { return accepted_; }

    // Visits of connections whose script has ended, in that order, once there are `count` or 5 s
    // passed. HTTP clients may open a spare connection and close it unused; `requestsOnly`
    // leaves those out.
    std::vector<Visit> awaitVisits(std::size_t count, bool requestsOnly = true) {
        std::vector<Visit> counted;
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 5s, [&] {
            counted.clear();
            std::ranges::copy_if(visits_, std::back_inserter(counted),
                                 [&](const Visit& visit) { return !requestsOnly || !visit.received.empty(); });
            return counted.size() >= count;
        });
        return counted;
    }

private:
    void acceptLoop() {
        for (;;) {
            pollfd watched[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
            if (::poll(watched, 2, -1) < 0 && errno == EINTR) continue;
            if (watched[1].revents != 0) return;
            int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (descriptor < 0) continue;
            ++accepted_;
            peers_.emplace_back([this, descriptor] {
                Peer peer(descriptor, stop_[0]);
                script_(peer);
                std::lock_guard lock(mutex_);
                visits_.push_back(peer.visit);
                changed_.notify_all();
            });
        }
    }

    Script script_;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    std::atomic<int> accepted_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Visit> visits_;
    std::vector<std::thread> peers_;  // only the accepting thread adds, before it is joined
    std::thread acceptor_;
};

}  // namespace lm::testing
