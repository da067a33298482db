#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"

namespace lm::platform::terminal {

void TerminalMenuItem::choose() {
    if (!enabled_ || !action_) return;
    if (auto target = target_.lock()) target->perform(*action_);
}

std::shared_ptr<MenuItem> TerminalMenu::makeItem(std::string, std::optional<MenuAction> action,
                                                 std::string keyEquivalent) {
    return std::make_shared<TerminalMenuItem>(action, std::move(keyEquivalent));
}

void TerminalMenu::addItem(std::shared_ptr<MenuItem> item) {
    if (auto ours = std::dynamic_pointer_cast<TerminalMenuItem>(item)) entries_.push_back(std::move(ours));
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

void TerminalStatusItem::setMenu(std::shared_ptr<Menu> menu) {
    menu_ = std::dynamic_pointer_cast<TerminalMenu>(menu);
    if (menuInput_ != MenuInput::typed || !menu_) return;
    // The input outlives the item, so it holds the menu only weakly.
    input_.setLineHandler([weakMenu = std::weak_ptr<TerminalMenu>(menu_)](const std::string& line) {
        if (auto menu = weakMenu.lock()) menu->choose(line);
    });
}

std::shared_ptr<StatusItem> TerminalStatusBar::statusItem(double) {
    return std::make_shared<TerminalStatusItem>(input_, output_, menuInput_);
}

}  // namespace lm::platform::terminal
