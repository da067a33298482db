// The HTTP client's reading of replies, fed in two pieces cut at every byte: whatever the network
// hands over at a time, the same reply comes out.
#include <gtest/gtest.h>

#include <tuple>

#include "LanternmoorPro/platform/http/ReplyReader.hpp"

namespace lm::test {

using platform::HttpResult;
using Kind = HttpResult::Kind;

struct Reply {
    const char* name;
    std::string bytes;
    Kind kind;
    int status = 0;
    std::string body = "";
    bool closes = false;     // the peer closes once it has sent the bytes
    bool lastByte = true;    // not finished before the last byte arrived
    friend std::ostream& operator<<(std::ostream& out, const Reply& row) { return out << row.name; }
};

class ReplyReader : public testing::TestWithParam<Reply> {};

TEST_P(ReplyReader, ReadsTheSameReplyWhereverTheBytesAreCut) {
    const auto& row = GetParam();
    for (std::size_t cut = 0; cut <= row.bytes.size(); ++cut) {
        platform::http::ReplyReader reader(8);
        reader.feed(std::string_view(row.bytes).substr(0, cut));
        EXPECT_FALSE(row.lastByte && cut < row.bytes.size() && reader.finished()) << "finished after " << cut << " bytes";
        reader.feed(std::string_view(row.bytes).substr(cut));
        if (row.closes) reader.end();
        const auto result = reader.result();
        EXPECT_EQ(std::tuple(static_cast<int>(result.kind), result.status, result.body),
                  std::tuple(static_cast<int>(row.kind), row.status, row.body))
            << "cut after " << cut << " bytes";
    }
}

const std::string ok = "HTTP/1.1 200 OK\r\n";

INSTANTIATE_TEST_SUITE_P(Replies, ReplyReader, testing::Values(
    Reply{"FramedByLength", ok + "content-LENGTH: 5\r\n\r\nhello", Kind::reply, 200, "hello"},
    Reply{"TwoEqualLengths", ok + "Content-Length: 5\r\nContent-Length:  5 \r\n\r\nhello", Kind::reply, 200, "hello"},
    Reply{"LengthZero", ok + "Content-Length: 0\r\n\r\n", Kind::reply, 200},
    Reply{"Chunked", ok + "Transfer-Encoding: chunked\r\n\r\n3;x=y\r\nhel\r\n2 \r\nlo\r\n0\r\nX-Trailer: 1\r\n\r\n", Kind::reply, 200, "hello"},
    Reply{"ChunkedOutranksLength", ok + "Content-Length: 100\r\nTransfer-Encoding: gzip, chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", Kind::reply, 200, "hello"},
    Reply{.name = "FramedByTheEnd", .bytes = ok + "\r\nhello", .kind = Kind::reply, .status = 200, .body = "hello", .closes = true},
    // An interim head is passed over; the final one after it is the reply.
    Reply{"InterimThenFinal", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok",
          Kind::reply, 200, "ok"},
    // No body whatever the head announces: reading on would wait for bytes that never come.
    Reply{"NoContent", "HTTP/1.1 204 No Content\r\nContent-Length: 5\r\n\r\n", Kind::reply, 204},
    Reply{"NotModified", "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n", Kind::reply, 304},
    Reply{"StatusWithoutReason", "HTTP/1.1 404\r\nContent-Length: 1\r\n\r\nx", Kind::reply, 404, "x"},
    // Over the limit of 8: cut at one byte more, and done even though more was announced.
    Reply{.name = "BodyOverTheLimit", .bytes = ok + "Content-Length: 20\r\n\r\n0123456789", .kind = Kind::reply, .status = 200,
          .body = "012345678", .lastByte = false},
    Reply{.name = "NotHttp", .bytes = "SSH-2.0-OpenSSH_9.2\r\n", .kind = Kind::notHttp, .lastByte = false},
    Reply{.name = "LengthsThatDisagree", .bytes = ok + "Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello!", .kind = Kind::transportError,
          .lastByte = false},
    Reply{"LengthNotANumber", ok + "Content-Length: 5x\r\n\r\n", Kind::transportError},
    Reply{"StatusOfFourDigits", "HTTP/1.1 2000 OK\r\n\r\n", Kind::transportError},
    Reply{"HeaderWithoutColon", ok + "Broken\r\n\r\n", Kind::transportError},
    Reply{"ChunkSizeNotHex", ok + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", Kind::transportError},
    Reply{"ChunkNotFollowedByItsLineBreak", ok + "Transfer-Encoding: chunked\r\n\r\n2\r\nokX\r\n", Kind::transportError},
    Reply{.name = "ShorterThanAnnounced", .bytes = ok + "Content-Length: 6\r\n\r\nhello", .kind = Kind::transportError, .closes = true},
    Reply{.name = "EndedInsideTheHead", .bytes = ok + "Content-Length: 6\r\n", .kind = Kind::transportError, .closes = true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace lm::test
