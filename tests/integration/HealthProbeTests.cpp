// The health probe against real loopback servers that script every byte and pause.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "LoopbackServer.hpp"
#include "ProbeHarness.hpp"

namespace lm {
static void PrintTo(LanternmoorLauncher::Health health, std::ostream* out) {
    constexpr const char* names[] = {"ours", "foreign", "noResponse"};
    *out << names[static_cast<int>(health)];
}
}  // namespace lm

namespace lm::testing {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using Health = LanternmoorLauncher::Health;
using std::chrono::milliseconds;

const std::string matching = R"({"appId":"lanternmoor-local-pro"})";

std::string answer(std::string_view statusLine, std::string_view body, std::string_view headers = "") {
    return "HTTP/1.1 "s.append(statusLine) + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n" + std::string(headers) + "\r\n" + std::string(body);
}

std::string chunks(const std::vector<std::string_view>& pieces) {
    std::string encoded;
    for (auto piece : pieces) {
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
        encoded.append(size).append(piece).append("\r\n");
    }
    return encoded + "0\r\n\r\n";
}

std::string padded(std::string body, std::size_t length) {
    body.resize(length, ' ');
    return body;
}

// gzip of the matching object, and of the matching object followed by 5000 blanks: 53 and
// 76 bytes on the wire, 33 and 5033 once decoded.
constexpr auto gzippedMatching =
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xab\x56\x4a\x2c\x28\xf0\x4c\x51\xb2\x52\xca\x49\xcc\x2b\x49\x2d"
    "\xca\xcb\xcd\xcf\x2f\xd2\xcd\xc9\x4f\x4e\xcc\xd1\x2d\x28\xca\x57\xaa\x05\x00\x4a\x33\xcf\x1f\x21\x00\x00"
    "\x00"sv;
constexpr auto gzippedPaddedMatching =
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xed\xc1\xc1\x0d\x80\x30\x08\x40\xd1\x55\x0c\x77\x16\xe8\x06\x1d"
    "\x83\xa8\x37\x0a\x84\x78\x33\xee\xee\x14\xbd\xfd\xf7\x5e\xb1\xaa\x79\xc9\x10\xb7\x78\xee\x8e\x95\xd9\xea"
    "\x79\x9a\x6b\x75\xca\x77\x00\x00\x00\x00\x00\x00\x00\xd8\xee\x07\xc2\xe6\x32\x4c\xa9\x13\x00\x00"sv;

// Reads the request, sends `bytes`, hangs up.
LoopbackServer::Script replying(std::string bytes) {
    return [bytes](Peer& peer) {
        peer.readHead();
        peer.send(bytes);
    };
}

std::string requestLine(const Visit& visit) { return visit.received.substr(0, visit.received.find("\r\n")); }

class HealthProbe : public ::testing::Test {
protected:
    struct Probed {
        std::optional<Health> health;
        milliseconds took{};
    };

    Probed probe(std::uint16_t port) {
        auto launcher = real.launcher(port);
        auto begin = std::chrono::steady_clock::now();
        auto outcome = runToEnd(real.mainThread, launcher->probeHealth());
        if (!outcome->value) return {};
        return {outcome->value, std::chrono::duration_cast<milliseconds>(outcome->end - begin)};
    }

    ProbePlatform real;
};

// ---- what an answer means ----------------------------------------------------------------------

struct AnswerCase {
    const char* name;
    std::string bytes;
    Health expected;
};

void PrintTo(const AnswerCase& row, std::ostream* out) { *out << row.name; }

class HealthProbeAnswer : public HealthProbe, public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(HealthProbeAnswer, IsSortedIntoItsCase) {
    LoopbackServer server(replying(GetParam().bytes));
    EXPECT_EQ(probe(server.port()).health, GetParam().expected);
}

const std::string matchingChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" +
                                    chunks({R"({"app)", R"(Id":"lanternmoor-)", R"(local-pro"})"});

INSTANTIATE_TEST_SUITE_P(
    HealthProbeReplies, HealthProbeAnswer,
    ::testing::Values(
        AnswerCase{"OnlyTheMatchingMember", answer("200 OK", matching), Health::ours},
        AnswerCase{"MatchingWhateverTheContentType", answer("200 OK", matching, "Content-Type: text/plain\r\n"),
                   Health::ours},
        AnswerCase{"ExtraMembersBefore", answer("200 OK", R"({"ok":true,"port":1,"appId":"lanternmoor-local-pro"})"),
                   Health::ours},
        AnswerCase{"ExtraMembersAfter",
                   answer("200 OK", R"({ "appId" : "lanternmoor-local-pro", "v" : {"appId": 1}, "l": [] })"),
                   Health::ours},
        AnswerCase{"PaddedToExactly4096Bytes", answer("200 OK", padded(matching, 4096)), Health::ours},
        AnswerCase{"PaddedTo4097Bytes", answer("200 OK", padded(matching, 4097)), Health::foreign},
        AnswerCase{"Chunked", matchingChunked, Health::ours},
        AnswerCase{"Gzipped", answer("200 OK", gzippedMatching, "Content-Encoding: gzip\r\n"), Health::ours},
        AnswerCase{"ChunkedAndGzipped",
                   "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n" +
                       chunks({gzippedMatching.substr(0, 20), gzippedMatching.substr(20)}),
                   Health::ours},
        AnswerCase{"SmallOnTheWireButOver4096Decoded",
                   answer("200 OK", gzippedPaddedMatching, "Content-Encoding: gzip\r\n"), Health::foreign},
        AnswerCase{"EndedByClosing", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + matching, Health::ours},
        AnswerCase{"Status201", answer("201 Created", matching), Health::foreign},
        AnswerCase{"Status204", answer("204 No Content", ""), Health::foreign},
        AnswerCase{"Status301WithoutLocation", answer("301 Moved Permanently", matching), Health::foreign},
        AnswerCase{"Status400", answer("400 Bad Request", matching), Health::foreign},
        AnswerCase{"Status404", answer("404 Not Found", matching), Health::foreign},
        AnswerCase{"Status500", answer("500 Internal Server Error", matching), Health::foreign},
        AnswerCase{"AppIdMissing", answer("200 OK", R"({"id":"lanternmoor-local-pro"})"), Health::foreign},
        AnswerCase{"AppIdCasedLikeTheField", answer("200 OK", R"({"appID":"lanternmoor-local-pro"})"),
                   Health::foreign},
        AnswerCase{"AppIdNumber", answer("200 OK", R"({"appId":18765})"), Health::foreign},
        AnswerCase{"AppIdBoolean", answer("200 OK", R"({"appId":true})"), Health::foreign},
        AnswerCase{"AppIdNull", answer("200 OK", R"({"appId":null})"), Health::foreign},
        AnswerCase{"AppIdArray", answer("200 OK", R"({"appId":["lanternmoor-local-pro"]})"), Health::foreign},
        AnswerCase{"AppIdObject", answer("200 OK", R"({"appId":{"appId":"lanternmoor-local-pro"}})"),
                   Health::foreign},
        AnswerCase{"IdentifierWithTrailingBlank", answer("200 OK", R"({"appId":"lanternmoor-local-pro "})"),
                   Health::foreign},
        AnswerCase{"IdentifierCapitalised", answer("200 OK", R"({"appId":"Lanternmoor-local-pro"})"),
                   Health::foreign},
        AnswerCase{"TopLevelArray", answer("200 OK", "[" + matching + "]"), Health::foreign},
        AnswerCase{"BareString", answer("200 OK", R"("lanternmoor-local-pro")"), Health::foreign},
        AnswerCase{"EmptyBody", answer("200 OK", ""), Health::foreign},
        AnswerCase{"NotJson", answer("200 OK", "ok"), Health::foreign},
        AnswerCase{"JsonFollowedByGarbage", answer("200 OK", matching + "}"), Health::foreign},
        AnswerCase{"NotHttpAtAll", "SSH-2.0-OpenSSH_9.2\r\n", Health::noResponse},
        AnswerCase{"HangsUpWithoutAnswer", "", Health::noResponse},
        AnswerCase{"BodyShorterThanAnnounced",
                   "HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\n" + matching,
                   Health::noResponse}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- time limits -------------------------------------------------------------------------------

TEST_F(HealthProbe, NothingListeningIsNoResponseAtOnce) {
    auto probed = probe(unusedLoopbackPort());
    EXPECT_EQ(probed.health, Health::noResponse);
    EXPECT_LT(probed.took, milliseconds(500));
}

struct StallCase {
    const char* name;
    LoopbackServer::Script script;
    milliseconds atLeast;
    milliseconds atMost;
};

void PrintTo(const StallCase& row, std::ostream* out) { *out << row.name; }

class HealthProbeStall : public HealthProbe, public ::testing::WithParamInterface<StallCase> {};

// A quiet peer is given up on after the idle limit (0.8 s), a busy but endless one at the
// overall limit (1.2 s); either way the probe hangs up.
TEST_P(HealthProbeStall, EndsInTimeAndHangsUp) {
    LoopbackServer server(GetParam().script);
    auto probed = probe(server.port());
    EXPECT_EQ(probed.health, Health::noResponse);
    EXPECT_GE(probed.took, GetParam().atLeast);
    EXPECT_LE(probed.took, GetParam().atMost);
    auto visits = server.awaitRequests(1);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_TRUE(visits[0].clientClosed);
}

INSTANTIATE_TEST_SUITE_P(
    HealthProbePeers, HealthProbeStall,
    ::testing::Values(
        StallCase{"AcceptsAndNeverAnswers", [](Peer& peer) { peer.awaitClose(milliseconds(3000)); },
                  milliseconds(700), milliseconds(1150)},
        StallCase{"SendsHeadersThenStalls",
                  [](Peer& peer) {
                      peer.readHead();
                      peer.send("HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n{\"appId\":");
                      peer.awaitClose(milliseconds(3000));
                  },
                  milliseconds(700), milliseconds(1150)},
        // Never quiet long enough for the idle limit, so only the overall limit can end it.
        StallCase{"TricklesWithoutEverGoingQuiet",
                  [](Peer& peer) {
                      peer.readHead();
                      peer.send("HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n");
                      for (char byte : matching) {
                          if (!peer.pause(milliseconds(250)) || !peer.send(std::string(1, byte))) break;
                      }
                      peer.awaitClose(milliseconds(3000));
                  },
                  milliseconds(1100), milliseconds(1600)}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- the exchange ------------------------------------------------------------------------------

TEST_F(HealthProbe, AsksForTheHealthPathWithoutCookies) {
    LoopbackServer server(replying(answer("200 OK", matching, "Set-Cookie: session=1; Path=/\r\n")));
    auto port = server.port();
    ASSERT_EQ(probe(port).health, Health::ours);
    ASSERT_EQ(probe(port).health, Health::ours);

    auto visits = server.awaitRequests(2);
    ASSERT_EQ(visits.size(), 2u);
    for (const auto& visit : visits) {
        EXPECT_EQ(requestLine(visit), "GET /api/health HTTP/1.1");
        EXPECT_NE(visit.received.find("\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n"), std::string::npos);
        EXPECT_EQ(visit.received.find("\r\nCookie:"), std::string::npos) << visit.received;
    }
}

TEST_F(HealthProbe, FollowsARedirectAndJudgesTheFinalAnswer) {
    LoopbackServer server([](Peer& peer) {
        auto head = peer.readHead();
        if (head.starts_with("GET /api/health ")) {
            peer.send(answer("302 Found", "", "Location: /other\r\nSet-Cookie: session=1; Path=/\r\n"));
        } else {
            peer.send(answer("200 OK", matching));
        }
    });
    EXPECT_EQ(probe(server.port()).health, Health::ours);

    auto visits = server.awaitRequests(2);
    ASSERT_EQ(visits.size(), 2u);
    std::vector<std::string> lines{requestLine(visits[0]), requestLine(visits[1])};
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"GET /api/health HTTP/1.1", "GET /other HTTP/1.1"}));
    for (const auto& visit : visits) EXPECT_EQ(visit.received.find("\r\nCookie:"), std::string::npos);
}

// A fast second answer must not be mistaken for the slow first one, nor share its connection.
TEST_F(HealthProbe, TwoProbesAtOnceEachGetTheirOwnAnswer) {
    std::atomic<int> connections = 0;
    LoopbackServer server([&connections](Peer& peer) {
        peer.readHead();
        if (++connections == 1) {
            peer.pause(milliseconds(400));
            peer.send(answer("200 OK", matching));
        } else {
            peer.send(answer("404 Not Found", matching));
        }
    });
    auto first = real.launcher(server.port());
    auto second = real.launcher(server.port());
    auto one = start(real.mainThread, first->probeHealth());
    auto other = start(real.mainThread, second->probeHealth());
    serveEventsUntil([&] { return one->value && other->value; });

    ASSERT_TRUE(one->value && other->value);
    auto [slow, fast] = one->end > other->end ? std::pair(one, other) : std::pair(other, one);
    EXPECT_EQ(slow->value, Health::ours);
    EXPECT_EQ(fast->value, Health::foreign);
    EXPECT_EQ(server.awaitRequests(2).size(), 2u);
}

// ---- bodies that never end ----------------------------------------------------------------------

constexpr std::size_t hugeBodySize = 10 * 1024 * 1024;

// Streams a 10 MB body in paced pieces, so a client that stops reading early is seen to do so.
void streamHugeBody(Peer& peer) {
    peer.readHead();
    if (!peer.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(hugeBodySize) + "\r\n\r\n")) return;
    const std::string piece(128 * 1024, ' ');
    for (std::size_t sent = 0; sent < hugeBodySize; sent += piece.size()) {
        if (!peer.send(piece) || !peer.pause(milliseconds(5))) return;
    }
}

TEST_F(HealthProbe, AHugeBodyIsForeignWithoutWaitingForItsEnd) {
    LoopbackServer server(streamHugeBody);
    auto probed = probe(server.port());
    EXPECT_EQ(probed.health, Health::foreign);

    auto visits = server.awaitRequests(1);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_LT(visits[0].bytesSent, hugeBodySize);
}

TEST(HealthProbeHttp, KeepsOneByteOverTheLimitAndAnswersOnce) {
    ProbePlatform real;
    LoopbackServer server(streamHugeBody);
    int answers = 0;
    platform::HttpResult result;
    platform::HttpRequest request{"http://127.0.0.1:" + std::to_string(server.port()) + "/", milliseconds(800),
                                  milliseconds(1200), 4096};
    real.http.get(request, [&](platform::HttpResult answered) {
        ++answers;
        result = std::move(answered);
    });
    // Long enough for the overall limit to have passed too, had it been left armed.
    serveEventsUntil([] { return false; }, milliseconds(1500));

    EXPECT_EQ(answers, 1);
    EXPECT_EQ(result.kind, platform::HttpResult::Kind::reply);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.body.size(), 4097u);
}

TEST(HealthProbeHttp, AnErrorStatusIsStillAReply) {
    ProbePlatform real;
    LoopbackServer server(replying(answer("503 Service Unavailable", "later")));
    std::optional<platform::HttpResult> result;
    real.http.get({"http://127.0.0.1:" + std::to_string(server.port()) + "/", milliseconds(800),
                   milliseconds(1200), 4096},
                  [&](platform::HttpResult answered) { result = std::move(answered); });
    serveEventsUntil([&] { return result.has_value(); });

    ASSERT_TRUE(result);
    EXPECT_EQ(result->kind, platform::HttpResult::Kind::reply);
    EXPECT_EQ(result->status, 503);
    EXPECT_EQ(result->body, "later");
}

}  // namespace
}  // namespace lm::testing
