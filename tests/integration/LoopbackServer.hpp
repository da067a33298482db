// A scripted TCP server on 127.0.0.1 and an ephemeral port, for tests that need a real other
// end whose every byte and pause they control. Each connection runs its script on a thread of
// its own, so a slow connection never holds up the next one.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace lm::testing {

using namespace std::chrono_literals;

// What one connection saw by the time its script ended.
struct Visit {
    std::string received;
    std::size_t bytesSent = 0;
    bool clientClosed = false;  // the client ended the connection (EOF or reset) before the script did
};

// The server's side of one accepted connection. Every wait also ends when the server stops.
class Peer {
public:
    Peer(int descriptor, int stopDescriptor) : descriptor_(descriptor), stopDescriptor_(stopDescriptor) {}
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // The request line and headers, up to the blank line; less when the client stops sending.
    std::string readHead(std::chrono::milliseconds limit = 3s);
    // False once the client is gone.
    bool send(std::string_view bytes);
    // Reads and keeps whatever arrives until the client closes (true) or `limit` passes.
    bool awaitClose(std::chrono::milliseconds limit);
    // False when the server is stopping.
    bool pause(std::chrono::milliseconds duration);

    Visit visit;

private:
    enum class Wait { readable, timedOut, stopping };
    Wait waitReadable(std::chrono::steady_clock::time_point deadline) const;
    bool readSome();

    int descriptor_;
    int stopDescriptor_;
};

class LoopbackServer {
public:
    using Script = std::function<void(Peer&)>;

    explicit LoopbackServer(Script script);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    std::uint16_t port() const { return port_; }
    // The visits of connections whose script has ended, in the order they ended, once there
    // are `count` of them or `limit` has passed.
    std::vector<Visit> awaitVisits(std::size_t count, std::chrono::milliseconds limit = 5s);
    // The same for connections that sent something. HTTP clients may open a spare connection
    // and close it unused; those are left out here.
    std::vector<Visit> awaitRequests(std::size_t count, std::chrono::milliseconds limit = 5s);
    int connectionsAccepted() const { return accepted_; }

private:
    void acceptLoop();
    void serve(int descriptor);
    std::vector<Visit> await(std::size_t count, std::chrono::milliseconds limit, bool (*counts)(const Visit&));

    Script script_;
    int listener_ = -1;
    int stopPipe_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    std::atomic<int> accepted_ = 0;
    std::mutex mutex_;
    std::condition_variable visitsChanged_;
    std::vector<Visit> visits_;
    std::vector<std::thread> peers_;  // only the accepting thread adds, before it is joined
    std::thread acceptor_;
};

// A listening socket that never accepts, with the backlog given.
class IdleListener {
public:
    explicit IdleListener(int backlog);
    ~IdleListener();
    IdleListener(const IdleListener&) = delete;
    IdleListener& operator=(const IdleListener&) = delete;
    std::uint16_t port() const { return port_; }

private:
    int listener_ = -1;
    std::uint16_t port_ = 0;
};

// A port on 127.0.0.1 that nothing listens on (it was free a moment ago).
std::uint16_t unusedLoopbackPort();

// A connected client socket to 127.0.0.1:port (closed with the object), or not connected when
// the connection could not be made at once.
class Client {
public:
    explicit Client(std::uint16_t port);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    bool isConnected() const { return connected_; }

private:
    int descriptor_ = -1;
    bool connected_ = false;
};

}  // namespace lm::testing
