#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"

#include "LanternmoorPro/platform/posix/DetachedProgram.hpp"

namespace lm::platform::terminal {

TerminalOpener::TerminalOpener(TerminalOutput& output, std::optional<std::string> browser)
    : output_(output), browser_(std::move(browser)) {
    if (browser_ && browser_->empty()) browser_.reset();
}

bool TerminalOpener::open(const std::string& url) {
    output_.writeLine("→ " + url);
    if (!browser_) return true;
    return !posix::startDetached(*browser_, {url}).has_value();
}

}  // namespace lm::platform::terminal
