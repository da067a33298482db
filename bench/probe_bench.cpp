// What one health probe and one port check cost on this machine: median and 95th percentile
// of many runs, against a live server on loopback that answers as ours, and a refused port.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <vector>

#include <QCoreApplication>

#include "integration/Support.hpp"

namespace {

using namespace lm::testing;
using Health = lm::LanternmoorLauncher::Health;
using Micros = std::chrono::duration<double, std::micro>;

void report(const char* what, const std::function<Micros()>& once) {
    constexpr int warmUpRuns = 10, runs = 200;
    for (int run = 0; run < warmUpRuns; ++run) once();
    std::vector<double> samples;
    for (int run = 0; run < runs; ++run) samples.push_back(once().count());
    std::sort(samples.begin(), samples.end());
    std::printf("%-36s median %9.1f us   p95 %9.1f us   (%d runs)\n", what, samples[runs / 2], samples[runs * 95 / 100], runs);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    RealWorld world;
    // Answers every connection as the workspace service does, one at a time, until it goes.
    LoopbackServer live(nullptr);
    live.serving = std::thread([&live] {
        for (int peer; (peer = ::accept4(live.listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(peer)) {
            LoopbackServer::Peer connection{peer};
            if (!connection.head().empty())
                connection.send("HTTP/1.1 200 OK\r\nContent-Length: 33\r\nConnection: close\r\n\r\n"
                                R"({"appId":"lanternmoor-local-pro"})");
        }
    });
    // The loop ends the moment the probe does, so the figure holds no polling interval.
    const auto timed = [&](std::uint16_t port, Health expected) {
        auto launcher = world.launcher(port);
        QEventLoop loop;
        std::optional<Health> health;
        const auto begin = Clock::now();
        world.scope.spawn(world.mainThread, [](auto launcher, auto& health, QEventLoop& loop) -> lm::platform::Task<> {
            health = co_await launcher->probeHealth();
            loop.quit();
        }(launcher, health, loop));
        if (!health) loop.exec();
        if (health != expected) throw std::runtime_error("the probe gave an unexpected answer");
        return Micros(Clock::now() - begin);
    };
    report("probeHealth, live matching server", [&] { return timed(live.port, Health::ours); });
    report("probeHealth, refused port", [&] { return timed(1, Health::noResponse); });
    report("portAcceptsConnections, live server", [&] {
        const auto begin = Clock::now();
        if (!world.launcher(live.port)->portAcceptsConnections()) throw std::runtime_error("the port check said free");
        return Micros(Clock::now() - begin);
    });
    return 0;
}
