#include "LanternmoorPro/platform/qt/QtHttp.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::qt {
namespace {

// A head this long is no health answer, whatever follows.
constexpr std::size_t headLimit = 64 * 1024;

#if defined(MSG_NOSIGNAL)
constexpr int sendFlags = MSG_NOSIGNAL;
#else
constexpr int sendFlags = 0;  // the program ignores SIGPIPE where sends cannot
#endif

struct Address {
    sockaddr_in socketAddress{};
    std::string host;  // as sent in the Host header
    std::string path;
};

// "http://A.B.C.D:port/path"; nothing else is ever asked for.
std::optional<Address> parseUrl(std::string_view url) {
    constexpr std::string_view scheme = "http://";
    if (!url.starts_with(scheme)) return std::nullopt;
    url.remove_prefix(scheme.size());
    const auto slash = url.find('/');
    Address address;
    address.host = std::string(url.substr(0, slash));
    address.path = slash == std::string_view::npos ? "/" : std::string(url.substr(slash));
    const auto colon = address.host.rfind(':');
    unsigned port = 80;
    if (colon != std::string::npos) {
        const auto digits = std::string_view(address.host).substr(colon + 1);
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
        if (error != std::errc() || end != digits.data() + digits.size() || port == 0 || port > 65535) return std::nullopt;
    }
    address.socketAddress.sin_family = AF_INET;
    address.socketAddress.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, address.host.substr(0, colon).c_str(), &address.socketAddress.sin_addr) != 1)
        return std::nullopt;
    return address;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

// One HTTP/1.1 reply, read from its bytes as they come: the head, then a body framed by its
// length, by chunks, or by the end of the connection. A body over the limit ends the reading
// with the limit and one byte more, which is enough to tell it is too long.
class ReplyReader {
public:
    explicit ReplyReader(std::size_t bodyLimit) : bodyLimit_(bodyLimit) {}

    bool finished() const { return state_ == State::done || state_ == State::broken || state_ == State::notHttp; }

    HttpResult result() const {
        if (state_ == State::done) return HttpResult::reply(status_, body_);
        if (state_ == State::notHttp) return HttpResult{HttpResult::Kind::notHttp, 0, {}};
        return HttpResult::failed();
    }

    void feed(std::string_view bytes) {
        pending_.append(bytes);
        while (!finished() && step()) {
        }
    }

    // The peer closed: only a body framed by the end of the connection is complete then.
    void end() {
        if (finished()) return;
        state_ = state_ == State::body && !remaining_ ? State::done : State::broken;
    }

private:
    enum class State { head, body, chunkSize, chunkData, chunkEnd, trailer, done, broken, notHttp };

    // Takes one step with what is pending; false when more bytes are needed.
    bool step() {
        switch (state_) {
        case State::head: return readHead();
        case State::body: return readBody();
        case State::chunkSize: return readChunkSize();
        case State::chunkData: return readChunkData();
        case State::chunkEnd: return readLine([this](std::string_view line) {
            state_ = line.empty() ? State::chunkSize : State::broken;
        });
        case State::trailer: return readLine([this](std::string_view line) {
            if (line.empty()) state_ = State::done;
        });
        default: return false;
        }
    }

    // Calls `take` with the next whole line, without its line break.
    template <typename Take>
    bool readLine(Take take) {
        const auto end = pending_.find('\n');
        if (end == std::string::npos) {
            if (pending_.size() > headLimit) state_ = State::broken;
            return false;
        }
        const auto line = trimmed(std::string_view(pending_).substr(0, end));
        take(line);
        pending_.erase(0, end + 1);
        return true;
    }

    bool readHead() {
        constexpr std::string_view protocol = "HTTP/";
        if (pending_.compare(0, protocol.size(), protocol, 0, std::min(protocol.size(), pending_.size())) != 0) {
            state_ = State::notHttp;
            return false;
        }
        const auto end = pending_.find("\r\n\r\n");
        if (end == std::string::npos) {
            if (pending_.size() > headLimit) state_ = State::broken;
            return false;
        }
        const auto head = pending_.substr(0, end + 2);
        pending_.erase(0, end + 4);
        if (!parseHead(head)) {
            state_ = State::broken;
            return false;
        }
        // An interim answer (100 Continue, say) is followed by the real one.
        if (status_ >= 100 && status_ < 200) return true;
        if (status_ == 204 || status_ == 304 || (remaining_ && *remaining_ == 0)) {
            state_ = State::done;
        } else {
            state_ = chunked_ ? State::chunkSize : State::body;
        }
        return true;
    }

    bool parseHead(std::string_view head) {
        const auto lineEnd = head.find("\r\n");
        const auto statusLine = head.substr(0, lineEnd);
        // "HTTP/1.1 200 OK": the version, a blank, three digits, then a blank or nothing.
        if (statusLine.size() < 12 || statusLine[8] != ' ' || (statusLine.size() > 12 && statusLine[12] != ' ')) return false;
        auto [end, error] = std::from_chars(statusLine.data() + 9, statusLine.data() + 12, status_);
        if (error != std::errc() || end != statusLine.data() + 12) return false;
        chunked_ = false;
        remaining_.reset();
        for (auto rest = head.substr(lineEnd + 2); !rest.empty();) {
            const auto next = rest.find("\r\n");
            const auto line = rest.substr(0, next);
            rest.remove_prefix(std::min(rest.size(), next + 2));
            const auto colon = line.find(':');
            if (colon == std::string_view::npos) return false;
            const auto name = line.substr(0, colon);
            const auto value = trimmed(line.substr(colon + 1));
            if (equalsIgnoringCase(name, "Transfer-Encoding")) {
                chunked_ = value.size() >= 7 && equalsIgnoringCase(value.substr(value.size() - 7), "chunked");
            } else if (equalsIgnoringCase(name, "Content-Length")) {
                std::size_t length = 0;
                auto [at, failed] = std::from_chars(value.data(), value.data() + value.size(), length);
                if (failed != std::errc() || at != value.data() + value.size()) return false;
                if (remaining_ && *remaining_ != length) return false;
                remaining_ = length;
            }
        }
        if (chunked_) remaining_.reset();
        return true;
    }

    bool readBody() {
        const auto taken = takeBody(remaining_.value_or(pending_.size()));
        if (taken == 0) return false;
        if (remaining_ && (*remaining_ -= taken) == 0 && !finished()) state_ = State::done;
        return !finished();
    }

    bool readChunkSize() {
        return readLine([this](std::string_view line) {
            const auto digits = line.substr(0, line.find(';'));
            std::size_t size = 0;
            auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
            if (digits.empty() || error != std::errc() || trimmed({end, digits.data() + digits.size()}) != "") {
                state_ = State::broken;
                return;
            }
            chunkLeft_ = size;
            state_ = size == 0 ? State::trailer : State::chunkData;
        });
    }

    bool readChunkData() {
        const auto taken = takeBody(chunkLeft_);
        if (taken == 0) return false;
        if ((chunkLeft_ -= taken) == 0 && !finished()) state_ = State::chunkEnd;
        return !finished();
    }

    // Moves up to `most` pending bytes into the body; how many it moved.
    std::size_t takeBody(std::size_t most) {
        const auto take = std::min(pending_.size(), most);
        keep(std::string_view(pending_).substr(0, take));
        pending_.erase(0, take);
        return take;
    }

    void keep(std::string_view bytes) {
        body_.append(bytes.substr(0, std::min(bytes.size(), bodyLimit_ + 1 - body_.size())));
        if (body_.size() > bodyLimit_) state_ = State::done;
    }

    std::size_t bodyLimit_;
    State state_ = State::head;
    std::string pending_;
    int status_ = 0;
    bool chunked_ = false;
    std::optional<std::size_t> remaining_;  // of a body framed by its length
    std::size_t chunkLeft_ = 0;
    std::string body_;
};

// One GET from start to `done`. It deletes itself once it has answered; going with its parent
// before that, it answers nothing.
class Exchange final : public QObject {
public:
    Exchange(QObject* parent, const HttpRequest& request, std::function<void(HttpResult)> done)
        : QObject(parent), reader_(request.bodyLimit), done_(std::move(done)) {
        idle_.setSingleShot(true);
        idle_.setTimerType(Qt::PreciseTimer);
        connect(&idle_, &QTimer::timeout, this, [this] { answer(HttpResult::failed()); });
        QTimer::singleShot(request.totalTimeout, Qt::PreciseTimer, this, [this] { answer(HttpResult::failed()); });
        idle_.start(request.idleTimeout);
        start(request);
    }

private:
    void start(const HttpRequest& request) {
        auto address = parseUrl(request.url);
        auto socket = posix::makeStreamSocket();
        if (!address || !socket) return answer(HttpResult::failed());
        socket_ = std::move(socket.value());
        request_ = "GET " + address->path + " HTTP/1.1\r\nHost: " + address->host + "\r\nConnection: close\r\n\r\n";
        const auto* target = reinterpret_cast<const sockaddr*>(&address->socketAddress);
        if (::connect(socket_.get(), target, sizeof address->socketAddress) != 0 && errno != EINPROGRESS) {
            return answer(HttpResult::failed());
        }
        writable_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Write);
        connect(writable_.get(), &QSocketNotifier::activated, this, [this] { send(); });
    }

    void send() {
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            return answer(HttpResult::failed());
        }
        auto sent = ::send(socket_.get(), request_.data(), request_.size(), sendFlags);
        if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (sent < 0) return answer(HttpResult::failed());
        request_.erase(0, static_cast<std::size_t>(sent));
        if (!request_.empty()) return;
        writable_->setEnabled(false);
        readable_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Read);
        connect(readable_.get(), &QSocketNotifier::activated, this, [this] { receive(); });
    }

    void receive() {
        char chunk[16 * 1024];
        for (;;) {
            const auto got = posix::retryingInterrupted([&] { return ::recv(socket_.get(), chunk, sizeof chunk, 0); });
            if (got < 0 && errno == EAGAIN) break;
            if (got < 0) return answer(HttpResult::failed());
            if (got == 0) {
                reader_.end();
                break;
            }
            idle_.start();
            reader_.feed({chunk, static_cast<std::size_t>(got)});
            if (reader_.finished()) break;
        }
        if (reader_.finished()) answer(reader_.result());
    }

    // The first answer wins; the connection is closed at once, and this object goes once
    // control is back in the event loop.
    void answer(HttpResult result) {
        if (!done_) return;
        auto done = std::exchange(done_, nullptr);
        writable_.reset();
        readable_.reset();
        socket_.reset();
        idle_.stop();
        deleteLater();
        done(std::move(result));
    }

    ReplyReader reader_;
    std::function<void(HttpResult)> done_;
    posix::Descriptor socket_;
    std::string request_;
    std::unique_ptr<QSocketNotifier> writable_;
    std::unique_ptr<QSocketNotifier> readable_;
    QTimer idle_;
};

}  // namespace

void QtHttp::get(const HttpRequest& request, std::function<void(HttpResult)> done) {
    new Exchange(&exchanges_, request, std::move(done));
}

}  // namespace lm::platform::qt
