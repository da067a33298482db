#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::terminal {
namespace {

// The code a waiting loop is woken with when input arrived; the application ending the loops
// uses another one.
constexpr int inputArrived = 1;

}  // namespace

void TerminalOutput::writeLine(std::string_view text) {
    std::string line(text);
    line += '\n';
    // A reader that went away takes the rest of the line with it; nobody is left to tell.
    (void)posix::writeAll(descriptor_, line, "standard output");
}

TerminalInput::TerminalInput(int descriptor) : descriptor_(descriptor) {
    if (::fcntl(descriptor_, F_GETFL) < 0) {
        closed_ = true;
        return;
    }
    notifier_ = std::make_unique<QSocketNotifier>(descriptor_, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] { onReadable(); });
    updateNotifier();
}

TerminalInput::~TerminalInput() = default;

void TerminalInput::setLineHandler(std::function<void(const std::string&)> handler) {
    lineHandler_ = std::move(handler);
    updateNotifier();
}

std::optional<std::string> TerminalInput::awaitLine() {
    QEventLoop loop;
    QEventLoop* outer = std::exchange(waiting_, &loop);
    updateNotifier();
    auto line = takeLine();
    while (!line && !closed_ && loop.exec() == inputArrived) line = takeLine();
    waiting_ = outer;
    updateNotifier();
    return line;
}

void TerminalInput::onReadable() {
    readAvailable();
    updateNotifier();
    if (waiting_ != nullptr) {
        waiting_->exit(inputArrived);
        return;
    }
    offerLines();
}

void TerminalInput::readAvailable() {
    char chunk[4096];
    const ssize_t got = posix::retryingInterrupted([&] { return ::read(descriptor_, chunk, sizeof chunk); });
    if (got > 0) {
        accept({chunk, static_cast<std::size_t>(got)});
        return;
    }
    // A read that fails for good (a terminal that hung up, a launcher in the background of
    // its shell) ends the input as its end would.
    if (got == 0 || errno != EAGAIN) closed_ = true;
}

void TerminalInput::accept(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto end = bytes.find('\n');
        const auto piece = bytes.substr(0, end);
        const auto kept = std::min(piece.size(), lineLimit - unfinished_);
        buffer_.append(piece.substr(0, kept));
        unfinished_ += kept;
        if (end == std::string_view::npos) return;
        buffer_ += '\n';
        unfinished_ = 0;
        bytes.remove_prefix(end + 1);
    }
}

void TerminalInput::offerLines() {
    while (waiting_ == nullptr && lineHandler_) {
        auto line = takeLine();
        if (!line) return;
        // A copy, since handling a line may replace the handler.
        auto handler = lineHandler_;
        handler(*line);
    }
}

std::optional<std::string> TerminalInput::takeLine() {
    const auto end = buffer_.find('\n');
    if (end == std::string::npos) {
        // What was typed before the end of input without a line break still counts.
        if (!closed_ || buffer_.empty()) return std::nullopt;
        unfinished_ = 0;
        return std::exchange(buffer_, {});
    }
    auto line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

void TerminalInput::updateNotifier() {
    if (!notifier_) return;
    // Without an alert or a menu to serve, input is left where it is for the next alert.
    notifier_->setEnabled(!closed_ && (waiting_ != nullptr || lineHandler_));
}

}  // namespace lm::platform::terminal
