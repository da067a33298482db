#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

void LanternmoorLauncher::installMenu() {
    auto item = platform_.statusBar.statusItem();
    // Each look at the button stands alone: an item without one still gets its menu.
    if (auto* button = item->button()) button->setTitle(std::string(texts::statusTitle));
    if (auto* button = item->button()) button->setToolTip(std::string(texts::startingToolTip));
    if (auto* button = item->button()) button->setAccessibilityLabel(std::string(texts::accessibilityLabel));

    auto& menu = item->menu();
    auto self = weak_from_this();
    auto add = [&](std::string_view title, std::optional<platform::MenuAction> action, std::string key) {
        auto entry = menu.addItem(std::string(title), action, std::move(key));
        if (action) entry->setTarget(self);
        return entry;
    };
    // Enabled flags are exactly what the launcher sets, whatever the targets could do.
    add(texts::menuHeader, std::nullopt, "")->setEnabled(false);
    auto open = add(texts::menuOpenWorkspace, platform::MenuAction::openFromMenu, "o");
    open->setEnabled(false);
    add(texts::menuGuide, platform::MenuAction::openGuide, "");
    add(texts::menuData, platform::MenuAction::openData, "");
    menu.addSeparator();
    add(texts::menuQuit, platform::MenuAction::quitFromMenu, "q");

    statusItem = std::move(item);
    openItem = std::move(open);
}

}  // namespace lm
