#include "LanternmoorPro/platform/http/ReplyReader.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "LanternmoorPro/platform/Text.hpp"

namespace lm::platform::http {
namespace {

// A head this long is no health answer, whatever follows.
constexpr std::size_t headLimit = 64 * 1024;

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(), [](unsigned char a, unsigned char b) {
               return std::tolower(a) == std::tolower(b);
           });
}

}  // namespace

HttpResult ReplyReader::result() const {
    if (state_ == State::done) return HttpResult::reply(status_, body_);
    if (state_ == State::notHttp) return HttpResult{HttpResult::Kind::notHttp, 0, {}};
    return HttpResult::failed();
}

void ReplyReader::feed(std::string_view bytes) {
    pending_.append(bytes);
    while (!finished() && step()) {
    }
}

void ReplyReader::end() {
    if (finished()) return;
    state_ = state_ == State::body && !remaining_ ? State::done : State::broken;
}

// Takes one step with what is pending; false when more bytes are needed.
bool ReplyReader::step() {
    switch (state_) {
    case State::head: return readHead();
    case State::body: return readBody();
    case State::chunkSize: return readChunkSize();
    case State::chunkData: return readChunkData();
    case State::chunkEnd: return readLine([this](std::string_view line) { state_ = line.empty() ? State::chunkSize : State::broken; });
    case State::trailer: return readLine([this](std::string_view line) {
        if (line.empty()) state_ = State::done;
    });
    default: return false;
    }
}

// Calls `take` with the next whole line, without its line break.
template <typename Take>
bool ReplyReader::readLine(Take take) {
    const auto end = pending_.find('\n');
    if (end == std::string::npos) {
        if (pending_.size() > headLimit) state_ = State::broken;
        return false;
    }
    take(trimmed(std::string_view(pending_).substr(0, end)));
    pending_.erase(0, end + 1);
    return true;
}

bool ReplyReader::readHead() {
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

bool ReplyReader::parseHead(std::string_view head) {
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
            // Two lengths that disagree leave no way to tell where the body ends.
            if (remaining_ && *remaining_ != length) return false;
            remaining_ = length;
        }
    }
    if (chunked_) remaining_.reset();
    return true;
}

bool ReplyReader::readBody() {
    const auto taken = takeBody(remaining_.value_or(pending_.size()));
    if (taken == 0) return false;
    if (remaining_ && (*remaining_ -= taken) == 0 && !finished()) state_ = State::done;
    return !finished();
}

bool ReplyReader::readChunkSize() {
    return readLine([this](std::string_view line) {
        const auto digits = line.substr(0, line.find(';'));
        std::size_t size = 0;
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
        if (digits.empty() || error != std::errc() || !trimmed({end, static_cast<std::size_t>(digits.data() + digits.size() - end)}).empty()) {
            state_ = State::broken;
            return;
        }
        chunkLeft_ = size;
        state_ = size == 0 ? State::trailer : State::chunkData;
    });
}

bool ReplyReader::readChunkData() {
    const auto taken = takeBody(chunkLeft_);
    if (taken == 0) return false;
    if ((chunkLeft_ -= taken) == 0 && !finished()) state_ = State::chunkEnd;
    return !finished();
}

// Moves up to `most` pending bytes into the body; how many it moved.
std::size_t ReplyReader::takeBody(std::size_t most) {
    const auto take = std::min(pending_.size(), most);
    keep(std::string_view(pending_).substr(0, take));
    pending_.erase(0, take);
    return take;
}

void ReplyReader::keep(std::string_view bytes) {
    body_.append(bytes.substr(0, std::min(bytes.size(), bodyLimit_ + 1 - body_.size())));
    if (body_.size() > bodyLimit_) state_ = State::done;
}

}  // namespace lm::platform::http
