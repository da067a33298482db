// What one health probe and one port check cost on this machine: median and 95th percentile
// of many runs against a live matching service, a refused port and a silent listener.
#include <QCoreApplication>
#include <QEventLoop>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"
#include "LanternmoorPro/platform/qt/QtHttp.hpp"
#include "LanternmoorPro/platform/qt/QtJson.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "fake/FakePlatform.hpp"

namespace {

using namespace lm;
using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

constexpr int runs = 200;
constexpr int warmUpRuns = 10;

// Answers every connection with the service's health reply, one connection at a time.
class HealthService {
public:
    enum class Mode { answer, silent };

    explicit HealthService(Mode mode) : mode_(mode) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, SOMAXCONN) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~HealthService() {
        // Wakes the blocked accept; the thread then sees the error and ends.
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    HealthService(const HealthService&) = delete;
    HealthService& operator=(const HealthService&) = delete;

    std::uint16_t port() const { return port_; }

private:
    void serve() {
        for (;;) {
            int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) return;
            if (mode_ == Mode::answer) answer(connection);
            ::close(connection);
        }
    }

    static void answer(int connection) {
        std::string head;
        char buffer[4096];
        while (head.find("\r\n\r\n") == std::string::npos) {
            auto count = ::recv(connection, buffer, sizeof buffer, 0);
            if (count <= 0) return;
            head.append(buffer, static_cast<std::size_t>(count));
        }
        static const std::string reply =
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 33\r\nConnection: close\r\n\r\n"
            R"({"appId":"lanternmoor-local-pro"})";
        ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    Mode mode_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

std::uint16_t refusedPort() {
    int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(descriptor);
    return ntohs(address.sin_port);
}

struct RealPlatform {
    platform::qt::QtMainThread mainThread;
    platform::qt::QtHttp http;
    platform::qt::QtJson json;
    platform::posix::PosixNetwork network;
    fake::FakeApplication application;
    fake::FakeProcesses processes;
    fake::FakeFileSystem files;
    fake::FakeOpener opener;
    fake::FakeAlerts alerts;
    fake::FakeStatusBar statusBar;
    fake::FakeEnvironment environment;
    fake::FakeFolders folders;
    platform::Platform platform{mainThread, application, processes, files,   http,        json,
                                network,    opener,      alerts,    statusBar, environment, folders};
};

platform::Task<> probeOnce(LanternmoorLauncher& launcher, QEventLoop& loop, LanternmoorLauncher::Health& health) {
    health = co_await launcher.probeHealth();
    loop.quit();
}

// One probe, start to answer, with the event loop served in between as the program does.
Micros timeProbe(RealPlatform& real, LanternmoorLauncher& launcher, LanternmoorLauncher::Health expected) {
    QEventLoop loop;
    auto health = LanternmoorLauncher::Health::noResponse;
    auto begin = Clock::now();
    platform::spawn(real.mainThread, probeOnce(launcher, loop, health));
    loop.exec();
    auto took = Micros(Clock::now() - begin);
    if (health != expected) throw std::runtime_error("the probe gave an unexpected answer");
    return took;
}

Micros timePortCheck(LanternmoorLauncher& launcher, bool expected) {
    auto begin = Clock::now();
    bool accepted = launcher.portAcceptsConnections();
    auto took = Micros(Clock::now() - begin);
    if (accepted != expected) throw std::runtime_error("the port check gave an unexpected answer");
    return took;
}

void report(const char* what, const std::function<Micros()>& once) {
    for (int run = 0; run < warmUpRuns; ++run) once();
    std::vector<double> samples;
    for (int run = 0; run < runs; ++run) samples.push_back(once().count());
    std::sort(samples.begin(), samples.end());
    auto percentile = [&](double share) { return samples[static_cast<std::size_t>(share * (samples.size() - 1))]; };
    std::printf("%-44s median %9.1f us   p95 %9.1f us   max %9.1f us   (%d runs)\n", what, percentile(0.5),
                percentile(0.95), samples.back(), runs);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    RealPlatform real;
    using Health = LanternmoorLauncher::Health;

    HealthService service(HealthService::Mode::answer);
    HealthService silent(HealthService::Mode::silent);
    auto live = std::make_shared<LanternmoorLauncher>(real.platform, service.port());
    auto refused = std::make_shared<LanternmoorLauncher>(real.platform, refusedPort());
    auto held = std::make_shared<LanternmoorLauncher>(real.platform, silent.port());

    report("probeHealth, live matching service", [&] { return timeProbe(real, *live, Health::ours); });
    report("probeHealth, refused port", [&] { return timeProbe(real, *refused, Health::noResponse); });
    report("portAcceptsConnections, accepting listener", [&] { return timePortCheck(*held, true); });
    report("portAcceptsConnections, refused port", [&] { return timePortCheck(*refused, false); });
    return 0;
}
