#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"

#include "LanternmoorPro/platform/Text.hpp"

namespace lm::platform::terminal {

void TerminalMenuItem::choose() {
    if (!enabled_ || !action_) return;
    if (auto target = target_.lock()) target->perform(*action_);
}

std::shared_ptr<MenuItem> TerminalMenu::addItem(std::string, std::optional<MenuAction> action, std::string keyEquivalent) {
    auto item = std::make_shared<TerminalMenuItem>(action, std::move(keyEquivalent));
    entries_.push_back(item);
    return item;
}

void TerminalMenu::choose(std::string_view typed) {
    typed = trimmed(typed);
    if (typed.empty()) return;
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        const auto& entry = entries_[index];
        if (!entry) continue;
        if (typed == entry->keyEquivalent() || typed == std::to_string(index + 1)) {
            entry->choose();
            return;
        }
    }
}

TerminalStatusItem::TerminalStatusItem(TerminalInput& input, TerminalOutput& output, MenuInput menuInput)
    : output_(output) {
    if (menuInput != MenuInput::typed) return;
    input.setLineHandler([weakMenu = std::weak_ptr<TerminalMenu>(menu_)](const std::string& line) {
        if (auto menu = weakMenu.lock()) menu->choose(line);
    });
}

TerminalStatusItem::~TerminalStatusItem() = default;

std::shared_ptr<StatusItem> TerminalStatusBar::statusItem() {
    return std::make_shared<TerminalStatusItem>(input_, output_, menuInput_);
}

}  // namespace lm::platform::terminal
