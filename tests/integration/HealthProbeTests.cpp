// The health probe against real loopback servers that script every byte and pause.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <ostream>
#include <string>
#include <vector>

#include "LoopbackServer.hpp"
#include "ProbeHarness.hpp"

namespace lm {
static void PrintTo(LanternmoorLauncher::Health health, std::ostream* out) {
    *out << std::array{"ours", "foreign", "noResponse"}[static_cast<int>(health)];
}
}  // namespace lm

namespace lm::testing {
namespace {

using namespace std::string_literals;
using Health = LanternmoorLauncher::Health;
using std::chrono::milliseconds;

const std::string matching = R"({"appId":"lanternmoor-local-pro"})";

std::string answer(const std::string& status, const std::string& body, const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n" +
           headers + "\r\n" + body;
}
std::string ok(const std::string& body) { return answer("200 OK", body); }

// gzip of the matching object (33 bytes decoded), and of it followed by 5000 blanks.
const std::string gzipped =
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xab\x56\x4a\x2c\x28\xf0\x4c\x51\xb2\x52\xca\x49\xcc\x2b\x49\x2d"
    "\xca\xcb\xcd\xcf\x2f\xd2\xcd\xc9\x4f\x4e\xcc\xd1\x2d\x28\xca\x57\xaa\x05\x00\x4a\x33\xcf\x1f\x21\x00\x00\x00"s;
const std::string gzippedPadded =
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xed\xc1\xc1\x0d\x80\x30\x08\x40\xd1\x55\x0c\x77\x16\xe8\x06\x1d"
    "\x83\xa8\x37\x0a\x84\x78\x33\xee\xee\x14\xbd\xfd\xf7\x5e\xb1\xaa\x79\xc9\x10\xb7\x78\xee\x8e\x95\xd9\xea"
    "\x79\x9a\x6b\x75\xca\x77\x00\x00\x00\x00\x00\x00\x00\xd8\xee\x07\xc2\xe6\x32\x4c\xa9\x13\x00\x00"s;

// What the server sends to GET /api/health: the head at once, then the body in pieces of
// `piece` bytes `pace` apart; `holdOpen` keeps the connection until the client hangs up.
struct Reply {
    const char* name;
    std::string bytes;
    Health expected;
    std::size_t piece = 1 << 30;
    milliseconds pace = 0ms;
    bool holdOpen = false;
    milliseconds atLeast = 0ms;
    milliseconds atMost = 1300ms;  // a probe ends within about 1.2 s whatever the other end does
};
void PrintTo(const Reply& row, std::ostream* out) { *out << row.name; }

const std::string headersOnly = "HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n";
const std::vector<Reply> replies = {
    {"OnlyTheMatchingMember", ok(matching), Health::ours},
    {"AnyContentType", answer("200 OK", matching, "Content-Type: text/plain\r\n"), Health::ours},
    {"ExtraMembersBefore", ok(R"({"ok":true,"port":1,"appId":"lanternmoor-local-pro"})"), Health::ours},
    {"ExtraMembersAfter", ok(R"({ "appId" : "lanternmoor-local-pro", "v" : {"appId": 1}, "l": [] })"), Health::ours},
    {"Exactly4096Bytes", ok(matching + std::string(4096 - matching.size(), ' ')), Health::ours},
    {"Over4096Bytes", ok(matching + std::string(4097 - matching.size(), ' ')), Health::foreign},
    {"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\n" + matching.substr(0, 9) + "\r\n18\r\n" +
                    matching.substr(9) + "\r\n0\r\n\r\n",
     Health::ours},
    {"Gzipped", answer("200 OK", gzipped, "Content-Encoding: gzip\r\n"), Health::foreign},
    {"SmallOnTheWireOver4096Decoded", answer("200 OK", gzippedPadded, "Content-Encoding: gzip\r\n"), Health::foreign},
    {"EndedByClosing", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + matching, Health::ours},
    {"RedirectToMatching", answer("302 Found", "", "Location: /moved\r\n"), Health::foreign},
    {"Status201", answer("201 Created", matching), Health::foreign},
    {"Status204", answer("204 No Content", ""), Health::foreign},
    {"Status301WithoutLocation", answer("301 Moved Permanently", matching), Health::foreign},
    {"Status404", answer("404 Not Found", matching), Health::foreign},
    {"Status500", answer("500 Internal Server Error", matching), Health::foreign},
    {"AppIdMissing", ok(R"({"id":"lanternmoor-local-pro"})"), Health::foreign},
    {"AppIdMiscased", ok(R"({"appID":"lanternmoor-local-pro"})"), Health::foreign},
    {"AppIdNumber", ok(R"({"appId":18765})"), Health::foreign},
    {"AppIdBoolean", ok(R"({"appId":true})"), Health::foreign},
    {"AppIdNull", ok(R"({"appId":null})"), Health::foreign},
    {"AppIdArray", ok(R"({"appId":["lanternmoor-local-pro"]})"), Health::foreign},
    {"AppIdObject", ok(R"({"appId":{"appId":"lanternmoor-local-pro"}})"), Health::foreign},
    {"IdentifierWithTrailingBlank", ok(R"({"appId":"lanternmoor-local-pro "})"), Health::foreign},
    {"IdentifierCapitalised", ok(R"({"appId":"Lanternmoor-local-pro"})"), Health::foreign},
    {"TopLevelArray", ok("[" + matching + "]"), Health::foreign},
    {"BareString", ok(R"("lanternmoor-local-pro")"), Health::foreign},
    {"EmptyBody", ok(""), Health::foreign},
    {"NotJson", ok("ok"), Health::foreign},
    {"JsonFollowedByGarbage", ok(matching + "}"), Health::foreign},
    {"NotHttpAtAll", "SSH-2.0-OpenSSH_9.2\r\n", Health::foreign},
    {"HangsUpWithoutAnswer", "", Health::noResponse},
    {"BodyShorterThanAnnounced", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + matching, Health::noResponse},
    // Paced so that only a probe that stops reading at the limit answers in time.
    {.name = "TenMegabyteBody", .bytes = ok(std::string(10 << 20, ' ')), .expected = Health::foreign,
     .piece = 128 << 10, .pace = 20ms},
    {.name = "NeverAnswers", .bytes = "", .expected = Health::noResponse, .holdOpen = true, .atLeast = 700ms},
    {.name = "HeadersThenStall", .bytes = headersOnly + R"({"appId":)", .expected = Health::noResponse,
     .holdOpen = true, .atLeast = 700ms},
    // Never quiet long enough for the idle limit, so only the overall limit can end it.
    {.name = "TricklesWithoutGoingQuiet", .bytes = headersOnly + matching, .expected = Health::noResponse, .piece = 1,
     .pace = 250ms, .atLeast = 1100ms, .atMost = 1700ms},
};

class HealthProbeReply : public ::testing::TestWithParam<Reply> {
protected:
    ProbePlatform real;
};

TEST_P(HealthProbeReply, IsJudgedInTime) {
    const Reply& row = GetParam();
    // Anything but the health path gets a 404, so a probe asking elsewhere is never "ours".
    LoopbackServer server([&row](Peer& peer) {
        auto head = peer.readHead();
        auto reply = head.starts_with("GET /api/health HTTP/1.1\r\n") ? row.bytes
                     : head.starts_with("GET /moved HTTP/1.1\r\n")    ? ok(matching)
                                                                      : answer("404 Not Found", matching);
        auto at = reply.find("\r\n\r\n") == std::string::npos ? reply.size() : reply.find("\r\n\r\n") + 4;
        for (bool going = peer.send(reply.substr(0, at)); going && at < reply.size(); at += row.piece) {
            going = peer.pause(row.pace) && peer.send(reply.substr(at, row.piece));
        }
        if (row.holdOpen) peer.awaitClose();
    });
    auto outcome = real.probe(server.port());
    EXPECT_EQ(outcome->value, row.expected);
    EXPECT_GE(outcome->took(), row.atLeast);
    EXPECT_LE(outcome->took(), row.atMost);
    EXPECT_TRUE(!row.holdOpen || server.awaitVisits(1).at(0).clientClosed) << "the probe never hung up";
}

INSTANTIATE_TEST_SUITE_P(HealthProbe, HealthProbeReply, ::testing::ValuesIn(replies),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(HealthProbe, NothingListeningIsNoResponseAtOnce) {
    ProbePlatform real;
    auto outcome = real.probe(unusedLoopbackPort());
    EXPECT_EQ(outcome->value, Health::noResponse);
    EXPECT_LT(outcome->took(), 500ms);
}

// A fast second answer must not be mistaken for the slow first one, nor share its connection.
TEST(HealthProbe, TwoAtOnceEachGetTheirOwnAnswer) {
    ProbePlatform real;
    std::atomic<int> connections = 0;
    LoopbackServer server([&connections](Peer& peer) {
        peer.readHead();
        bool first = ++connections == 1;
        if (first) peer.pause(400ms);
        peer.send(answer(first ? "200 OK" : "404 Not Found", matching));
    });
    auto first = real.launcher(server.port()), second = real.launcher(server.port());
    auto one = start(real.mainThread, first->probeHealth()), other = start(real.mainThread, second->probeHealth());
    serveEventsUntil([&] { return one->value && other->value; });

    ASSERT_TRUE(one->value && other->value);
    auto [slow, fast] = one->end > other->end ? std::pair(one, other) : std::pair(other, one);
    EXPECT_EQ(slow->value, Health::ours);
    EXPECT_EQ(fast->value, Health::foreign);
    EXPECT_EQ(server.awaitVisits(2).size(), 2u);
}

}  // namespace
}  // namespace lm::testing
