// What the integration tests share: real files, a scripted loopback server, the Qt event loop, and
// the launcher on the real platform (Qt's main thread, processes, files, HTTP, JSON, sockets) with
// the fake only for the user's surface and the environment.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <QEventLoop>
#include <QTimer>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"
#include "LanternmoorPro/platform/qt/QtHttp.hpp"
#include "LanternmoorPro/platform/qt/QtJson.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "fake/FakePlatform.hpp"

namespace lm::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

struct TemporaryFolder {
    std::string path = std::filesystem::temp_directory_path() / "lm-test-XXXXXX";
    TemporaryFolder() { ::mkdtemp(path.data()); }
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::string writeFile(const std::string& path, const std::string& content, unsigned mode = 0644) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    std::filesystem::permissions(path, std::filesystem::perms(mode));
    return path;
}

inline std::string readFile(const std::string& path) { return (std::ostringstream() << std::ifstream(path).rdbuf()).str(); }

// Serves the Qt event loop until `done` holds or `limit` has passed; whether it held.
inline bool serveEventsUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&, deadline = Clock::now() + limit] {
        if (done() || Clock::now() >= deadline) loop.quit();
    });
    check.start(1);
    if (!done()) loop.exec();
    return done();
}

// Signal 0 still reaches a zombie, so this means reaped as well as ended.
inline bool isGone(std::int32_t processIdentifier) { return ::kill(processIdentifier, 0) != 0; }
// Ended, though whoever inherited it may not have reaped it yet.
inline bool hasEnded(std::int32_t processIdentifier) {
    const auto stat = readFile("/proc/" + std::to_string(processIdentifier) + "/stat");
    return stat.empty() || stat.substr(stat.rfind(')') + 2, 1) == "Z";
}

// A TCP server on 127.0.0.1 and an ephemeral port that runs `script` on its first connection; without
// a script it never accepts, so its queue fills.
struct LoopbackServer {
    struct Peer {
        int socket;
        // The request line and headers, as the probe sends them at once.
        std::string head() {
            std::string received(4096, '\0');
            return received.substr(0, std::max<ssize_t>(::recv(socket, received.data(), received.size(), 0), 0));
        }
        bool send(std::string_view bytes) { return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0; }
        // False when cut short by the client hanging up.
        bool pause(std::chrono::milliseconds duration) {
            pollfd watched{socket, POLLIN, 0};
            return ::poll(&watched, 1, static_cast<int>(duration.count())) == 0;
        }
    };
    explicit LoopbackServer(std::function<void(Peer&)> script, int backlog = SOMAXCONN) {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener, backlog);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        if (script) serving = std::thread([this, script] {
            Peer peer{::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)};
            script(peer);
            ::close(peer.socket);
        });
    }
    ~LoopbackServer() {
        ::shutdown(listener, SHUT_RDWR);  // an accept still waiting gives up
        if (serving.joinable()) serving.join();
        ::close(listener);
    }
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::uint16_t port = 0;
    std::thread serving;
};

// The launcher on the real platform but for the surface and the environment.
struct RealWorld : fake::Fake {
    platform::qt::QtMainThread mainThread;
    platform::posix::PosixFileSystem realFiles;
    platform::qt::QtHttp http;
    platform::qt::QtJson json;
    platform::posix::PosixNetwork network;
    platform::Platform real{mainThread, *this, *this, realFiles, http, json, network, *this, *this, *this, *this, *this};
    platform::TaskScope scope;

    std::shared_ptr<LanternmoorLauncher> launcher(std::uint16_t port = LanternmoorLauncher::defaultPort) {
        return std::make_shared<LanternmoorLauncher>(real, port);
    }
    // Runs the task in the event loop until it ends; none if it did not end within `limit`.
    template <typename T>
    std::optional<T> run(platform::Task<T> task, std::chrono::milliseconds limit = 5s) {
        auto result = std::make_shared<std::optional<T>>();
        scope.spawn(mainThread, [](platform::Task<T> inner, auto out) -> platform::Task<> { out->emplace(co_await std::move(inner)); }(
                                    std::move(task), result));
        serveEventsUntil([&] { return result->has_value(); }, limit);
        return *result;
    }
};

}  // namespace lm::testing
