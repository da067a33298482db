// The HTTP client's reading of a reply: standard C++ only, so it is tested byte by byte away
// from any socket.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "LanternmoorPro/platform/Network.hpp"

namespace lm::platform::http {

// One HTTP/1.1 reply, read from its bytes as they come: the head (after any interim 1xx heads),
// then a body framed by its length, by chunks, or by the end of the connection. A body over the
// limit ends the reading with the limit and one byte more, which is enough to tell it is too long.
class ReplyReader {
public:
    explicit ReplyReader(std::size_t bodyLimit) : bodyLimit_(bodyLimit) {}

    void feed(std::string_view bytes);
    // The peer closed: only a body framed by the end of the connection is complete then.
    void end();

    bool finished() const { return state_ == State::done || state_ == State::broken || state_ == State::notHttp; }
    // A reply once finished and complete; not HTTP when the peer spoke something else; a failed
    // exchange otherwise.
    HttpResult result() const;

private:
    enum class State { head, body, chunkSize, chunkData, chunkEnd, trailer, done, broken, notHttp };

    bool step();
    template <typename Take>
    bool readLine(Take take);
    bool readHead();
    bool parseHead(std::string_view head);
    bool readBody();
    bool readChunkSize();
    bool readChunkData();
    std::size_t takeBody(std::size_t most);
    void keep(std::string_view bytes);

    std::size_t bodyLimit_;
    State state_ = State::head;
    std::string pending_;
    int status_ = 0;
    bool chunked_ = false;
    std::optional<std::size_t> remaining_;  // of a body framed by its length
    std::size_t chunkLeft_ = 0;
    std::string body_;
};

}  // namespace lm::platform::http
