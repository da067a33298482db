#include "LanternmoorPro/platform/qt/QtHttp.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <QTimer>

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "LanternmoorPro/platform/http/ReplyReader.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::qt {
namespace {

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

// One GET from start to `done`. It deletes itself once it has answered; going with its parent
// before that, it answers nothing.
class Exchange final : public QObject {
public:
    Exchange(QObject* parent, const HttpRequest& request, std::function<void(HttpResult)> done)
        : QObject(parent), reader_(request.bodyLimit), done_(std::move(done)) {
        for (auto* limit : {&idle_, &total_}) {
            limit->setSingleShot(true);
            limit->setTimerType(Qt::PreciseTimer);
            connect(limit, &QTimer::timeout, this, [this] { answer(HttpResult::failed()); });
        }
        total_.start(request.totalTimeout);
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
        auto sent = posix::retryingInterrupted([&] { return ::send(socket_.get(), request_.data(), request_.size(), sendFlags); });
        if (sent < 0 && errno == EAGAIN) return;
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
        total_.stop();
        deleteLater();
        done(std::move(result));
    }

    http::ReplyReader reader_;
    std::function<void(HttpResult)> done_;
    posix::Descriptor socket_;
    std::string request_;
    std::unique_ptr<QSocketNotifier> writable_;
    std::unique_ptr<QSocketNotifier> readable_;
    QTimer idle_;
    QTimer total_;
};

}  // namespace

void QtHttp::get(const HttpRequest& request, std::function<void(HttpResult)> done) {
    new Exchange(&exchanges_, request, std::move(done));
}

}  // namespace lm::platform::qt
