// The health probe on the real HTTP stack against a peer that scripts every byte and pause, and the
// port check against real listeners.
#include "integration/Support.hpp"

namespace lm::testing {

using Health = LanternmoorLauncher::Health;
const std::string ours = R"({"appId":"lanternmoor-local-pro","pid":12})";
std::string answer(const std::string& status, const std::string& body, const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body;
}

struct Reply {
    const char* name;
    std::string bytes;  // the answer to GET /api/health; anything else gets a 404
    Health expected;
    std::optional<std::int64_t> pid = std::nullopt;
    std::chrono::milliseconds pace = 0ms, atLeast = 0ms;  // a byte at a time, this far apart
    bool closes = false;  // the peer closes once it has sent its answer; else it waits for the probe to
    friend std::ostream& operator<<(std::ostream& out, const Reply& row) { return out << row.name; }
};

class HealthProbe : public ::testing::TestWithParam<Reply> {};

TEST_P(HealthProbe, JudgesTheAnswerWithinItsLimits) {
    const auto& row = GetParam();
    LoopbackServer server([&row](LoopbackServer::Peer& peer) {
        auto reply = peer.head().starts_with("GET /api/health HTTP/1.1\r\nHost: 127.0.0.1:") ? row.bytes : answer("404 Not Found", ours);
        for (std::size_t at = 0; at < reply.size(); at += row.pace > 0ms ? 1 : reply.size())
            if (!peer.send(reply.substr(at, row.pace > 0ms ? 1 : reply.size())) || (row.pace > 0ms && !peer.pause(row.pace))) return;
        if (!reply.empty() && !row.closes) peer.pause(30s);
    });
    RealWorld world;
    auto launcher = world.launcher(server.port);
    const auto begin = Clock::now();
    // Whatever the peer does, the probe ends: only a missing limit waits for the peer, which holds
    // on for 30 s. How long the limits are is shown on the unit tier's virtual clock.
    auto health = world.run(launcher->probeHealthAnswer(), 20s);
    ASSERT_TRUE(health);
    EXPECT_EQ(std::tuple(health->health, health->processIdentifier), std::tuple(row.expected, row.pid));
    EXPECT_GE(Clock::now() - begin, row.atLeast);
}

const std::string padded = ours + std::string(4096 - ours.size(), ' ');
INSTANTIATE_TEST_SUITE_P(Replies, HealthProbe, ::testing::Values(
    Reply{"Ours", answer("200 OK", ours), Health::ours, 12}, Reply{"OursNamingNoProcess", answer("200 OK", R"({"appId":"lanternmoor-local-pro"})"), Health::ours},
    Reply{"Exactly4096Bytes", answer("200 OK", padded), Health::ours, 12}, Reply{"Over4096Bytes", answer("200 OK", padded + " "), Health::foreign},
    Reply{.name = "EndedByClosing", .bytes = "HTTP/1.1 200 OK\r\n\r\n" + ours, .expected = Health::ours, .pid = 12, .closes = true},
    Reply{"Status201", answer("201 Created", ours), Health::foreign},
    Reply{"AnotherIdentifier", answer("200 OK", R"({"appId":"lanternmoor-local-pro-2"})"), Health::foreign},
    Reply{"NotHttp", "SSH-2.0-OpenSSH_9.2\r\n", Health::foreign}, Reply{"HangsUpWithoutAnswer", "", Health::noResponse},
    Reply{"HeaderLineNeverEnds", "HTTP/1.1 200 OK\r\nX: " + std::string(1 << 20, 'x'), Health::noResponse},
    Reply{.name = "GoesQuiet", .bytes = "HTTP/1.1 200 OK\r\n", .expected = Health::noResponse, .atLeast = 750ms},
    // Never quiet long enough for the idle limit: only the limit on the whole exchange ends it.
    Reply{.name = "Trickles", .bytes = answer("200 OK", ours), .expected = Health::noResponse, .pace = 200ms, .atLeast = 1150ms}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PortCheck, TellsATakenPortFromAFreeOneWithinASecond) {
    RealWorld world;
    LoopbackServer silent([](LoopbackServer::Peer& peer) { peer.pause(3s); }), full(nullptr, 0);  // a silent one, and a full one
    const auto begin = Clock::now();
    EXPECT_EQ(world.run(world.launcher(1)->probeHealth()), Health::noResponse);  // refused at once
    EXPECT_FALSE(world.launcher(1)->portAcceptsConnections());
    EXPECT_LT(Clock::now() - begin, 900ms) << "not the attempt's limit";
    EXPECT_TRUE(world.launcher(silent.port)->portAcceptsConnections());
    // A listener whose queue is full lets the handshake hang until the check gives up.
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(full.port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    std::vector<int> queued(8);
    for (auto& socket : queued)
        ::connect(socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), reinterpret_cast<sockaddr*>(&address), sizeof address);
    std::this_thread::sleep_for(100ms);
    const auto hung = Clock::now();
    EXPECT_FALSE(world.launcher(full.port)->portAcceptsConnections());
    // Well under the kernel's own give-up, minutes away, with room for a loaded machine.
    EXPECT_TRUE(Clock::now() - hung >= 900ms && Clock::now() - hung < 30s);
    for (int socket : queued) ::close(socket);
}

}  // namespace lm::testing
