// The port check against real loopback listeners.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "LoopbackServer.hpp"
#include "ProbeHarness.hpp"

namespace lm::testing {
namespace {

using std::chrono::milliseconds;

class PortCheck : public ::testing::Test {
protected:
    struct Checked {
        bool accepted = false;
        milliseconds took{};
    };

    Checked check(std::uint16_t port) {
        auto launcher = real.launcher(port);
        auto begin = std::chrono::steady_clock::now();
        bool accepted = launcher->portAcceptsConnections();
        return {accepted, std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin)};
    }

    ProbePlatform real;
};

TEST_F(PortCheck, AFreePortIsNotTakenAndSaysSoAtOnce) {
    auto checked = check(unusedLoopbackPort());
    EXPECT_FALSE(checked.accepted);
    EXPECT_LT(checked.took, milliseconds(300));
}

TEST_F(PortCheck, AListenerThatNeverSpeaksHoldsThePortAndSeesOneSilentConnection) {
    LoopbackServer server([](Peer& peer) { peer.awaitClose(milliseconds(3000)); });
    EXPECT_TRUE(check(server.port()).accepted);

    auto visits = server.awaitVisits(1);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_TRUE(visits[0].clientClosed);
    EXPECT_EQ(visits[0].received, "");
    EXPECT_EQ(server.connectionsAccepted(), 1);
}

// Linux drops the handshake of a listener whose accept queue is full, so the attempt hangs
// until the send time-out ends it.
TEST_F(PortCheck, AHangingAttemptGivesUpAfterAboutASecond) {
    IdleListener listener(0);
    std::vector<std::unique_ptr<Client>> queued;
    while (queued.size() < 8) {
        queued.push_back(std::make_unique<Client>(listener.port()));
        if (!queued.back()->isConnected()) break;
    }
    ASSERT_FALSE(queued.back()->isConnected()) << "the accept queue never filled up";

    auto checked = check(listener.port());
    EXPECT_FALSE(checked.accepted);
    EXPECT_GE(checked.took, milliseconds(900));
    EXPECT_LT(checked.took, milliseconds(1500));
}

}  // namespace
}  // namespace lm::testing
