// The port check against real loopback listeners.
#include <gtest/gtest.h>

#include <vector>

#include "LoopbackServer.hpp"
#include "ProbeHarness.hpp"

namespace lm::testing {
namespace {

using Clock = std::chrono::steady_clock;

TEST(PortCheck, AFreePortIsNotTakenAndSaysSoAtOnce) {
    ProbePlatform real;
    auto begin = Clock::now();
    EXPECT_FALSE(real.launcher(unusedLoopbackPort())->portAcceptsConnections());
    EXPECT_LT(Clock::now() - begin, 300ms);
}

TEST(PortCheck, AListenerThatNeverSpeaksHoldsThePortAndSeesOneSilentConnection) {
    ProbePlatform real;
    LoopbackServer server([](Peer& peer) { peer.awaitClose(); });
    EXPECT_TRUE(real.launcher(server.port())->portAcceptsConnections());
    auto visits = server.awaitVisits(1, false);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_TRUE(visits[0].clientClosed);
    EXPECT_EQ(visits[0].received, "");
    EXPECT_EQ(server.connectionsAccepted(), 1);
}

// Linux drops the handshake of a listener whose accept queue is full, so the attempt hangs
// until the send time-out ends it.
TEST(PortCheck, AHangingAttemptGivesUpAfterAboutASecond) {
    ProbePlatform real;
    LoopbackServer idle(nullptr, 0);
    std::vector<int> queued;
    for (bool connected = true; connected && queued.size() < 8;) {
        queued.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        auto address = loopback(idle.port());
        ::connect(queued.back(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        pollfd writable{queued.back(), POLLOUT, 0};
        connected = ::poll(&writable, 1, 300) == 1;
    }
    auto begin = Clock::now();
    bool accepted = real.launcher(idle.port())->portAcceptsConnections();
    auto took = Clock::now() - begin;
    for (int descriptor : queued) ::close(descriptor);

    ASSERT_LT(queued.size(), 8u) << "the accept queue never filled up";
    EXPECT_FALSE(accepted);
    EXPECT_GE(took, 900ms);
    EXPECT_LT(took, 1500ms);
}

}  // namespace
}  // namespace lm::testing
