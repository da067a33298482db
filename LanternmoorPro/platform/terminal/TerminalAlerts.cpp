#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"

#include <algorithm>
#include <charconv>

#include "LanternmoorPro/platform/Text.hpp"

namespace lm::platform::terminal {
namespace {

// The one text of the terminal's own: asked again after an answer that picks no button.
constexpr std::string_view prompt = "请输入按钮编号后按回车（直接回车即选 [1]）：";

// The index of the button an answer picks, if it picks one.
std::optional<std::size_t> chosenButton(std::string_view answer, std::size_t buttonCount) {
    answer = platform::trimmed(answer);
    if (answer.empty()) return 0;
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(answer.data(), answer.data() + answer.size(), number);
    if (error != std::errc{} || end != answer.data() + answer.size()) return std::nullopt;
    if (number < 1 || number > buttonCount) return std::nullopt;
    return number - 1;
}

}  // namespace

std::string buttonLine(const std::vector<std::string>& buttons) {
    std::string line;
    for (std::size_t index = 0; index < buttons.size(); ++index) {
        if (index > 0) line += "  ";
        line.append("[").append(std::to_string(index + 1)).append("] ").append(buttons[index]);
    }
    return line;
}

std::size_t TerminalAlerts::runModal(const Alert& alert) {
    output_.writeLine(alert.title);
    if (!alert.message.empty()) output_.writeLine(alert.message);
    output_.writeLine(buttonLine(alert.buttons));

    const auto buttonCount = std::max<std::size_t>(alert.buttons.size(), 1);
    while (auto answer = input_.awaitLine()) {
        if (auto index = chosenButton(*answer, buttonCount)) return *index;
        output_.writeLine(prompt);
    }
    return buttonCount - 1;
}

}  // namespace lm::platform::terminal
