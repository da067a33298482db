// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include "LanternmoorPro/platform/UserInterface.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

namespace lm::platform::terminal {

// Prints the title, the message and a numbered button line, then takes one typed line: a
// button's number picks it, an empty line the first, the end of input the last. Anything
// else asks again.
class TerminalAlerts final : public Alerts {
public:
    TerminalAlerts(TerminalInput& input, TerminalOutput& output) : input_(input), output_(output) {}
    std::size_t runModal(const Alert& alert) override;

private:
    TerminalInput& input_;
    TerminalOutput& output_;
};

// "[1] first  [2] second": what the buttons look like in the terminal.
std::string buttonLine(const std::vector<std::string>& buttons);

}  // namespace lm::platform::terminal
