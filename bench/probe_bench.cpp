// What one health probe and one port check cost on this machine: median and 95th percentile
// of many runs. The live server spends a thread per connection, which the probe figure includes.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <vector>

#include "integration/LoopbackServer.hpp"
#include "integration/ProbeHarness.hpp"

namespace {

using namespace lm::testing;
using Health = lm::LanternmoorLauncher::Health;
using Micros = std::chrono::duration<double, std::micro>;

void report(const char* what, const std::function<Micros()>& once) {
    constexpr int warmUpRuns = 10, runs = 200;
    for (int run = 0; run < warmUpRuns; ++run) once();
    std::vector<double> samples;
    for (int run = 0; run < runs; ++run) samples.push_back(once().count());
    std::ranges::sort(samples);
    std::printf("%-36s median %9.1f us   p95 %9.1f us   (%d runs)\n", what, samples[runs / 2],
                samples[runs * 95 / 100], runs);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    ProbePlatform real;
    LoopbackServer live([](Peer& peer) {
        if (!peer.readHead().empty()) peer.send("HTTP/1.1 200 OK\r\nContent-Length: 33\r\nConnection: close\r\n\r\n"
                                                R"({"appId":"lanternmoor-local-pro"})");
    });
    auto refused = unusedLoopbackPort();
    auto probe = [&](std::uint16_t port, Health expected) {
        auto outcome = real.probe(port);
        if (outcome->value != expected) throw std::runtime_error("the probe gave an unexpected answer");
        return Micros(outcome->took());
    };
    report("probeHealth, live matching server", [&] { return probe(live.port(), Health::ours); });
    report("probeHealth, refused port", [&] { return probe(refused, Health::noResponse); });
    report("portAcceptsConnections, live server", [&] {
        auto begin = std::chrono::steady_clock::now();
        if (!real.launcher(live.port())->portAcceptsConnections()) throw std::runtime_error("port check said free");
        return Micros(std::chrono::steady_clock::now() - begin);
    });
    return 0;
}
