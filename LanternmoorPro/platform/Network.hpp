// Platform interfaces: standard C++ only. HTTP, JSON and the loopback connect check.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace lm::platform {

struct HttpRequest {
    std::string url;
    std::chrono::milliseconds idleTimeout;   // no data for this long ends the exchange
    std::chrono::milliseconds totalTimeout;  // the whole exchange ends by then in any case
    // Body bytes worth keeping; a longer body may be cut off at bodyLimit + 1 bytes.
    std::size_t bodyLimit;
};

struct HttpResult {
    enum class Kind { transportError, notHttp, reply };
    Kind kind = Kind::transportError;
    int status = 0;
    std::string body;  // after transfer decoding

    static HttpResult failed() { return {}; }
    static HttpResult reply(int status, std::string body) { return {Kind::reply, status, std::move(body)}; }
};

class Http {
public:
    virtual ~Http() = default;
    // One GET in a session of its own: no cookies, no cache, nothing shared with any other
    // request. `done` is called exactly once, from any thread.
    virtual void get(const HttpRequest& request, std::function<void(HttpResult)> done) = 0;
};

class Json {
public:
    virtual ~Json() = default;
    // The string value of `key` when `text` is JSON whose top level is an object holding
    // that key with a string value; none in every other case.
    virtual std::optional<std::string> stringMemberOfObject(std::string_view text, std::string_view key) const = 0;
    // Likewise for a member whose value is a whole number.
    virtual std::optional<std::int64_t> integerMemberOfObject(std::string_view text, std::string_view key) const = 0;
};

class Network {
public:
    virtual ~Network() = default;
    // One connection attempt to 127.0.0.1:port, bounded at about a second.
    virtual bool loopbackAcceptsConnections(std::uint16_t port) = 0;
};

}  // namespace lm::platform
