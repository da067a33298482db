// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include <optional>
#include <string>

#include "LanternmoorPro/platform/Platform.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

namespace lm::platform::terminal {

// Prints "→ <url>" so the user can open it by hand; with a browser program (the user's
// $BROWSER) it also starts that with the URL, and fails only when it cannot be started.
class TerminalOpener final : public Opener {
public:
    // An empty program name counts as none.
    TerminalOpener(TerminalOutput& output, std::optional<std::string> browser);
    bool open(const std::string& url) override;

private:
    TerminalOutput& output_;
    std::optional<std::string> browser_;
};

}  // namespace lm::platform::terminal
