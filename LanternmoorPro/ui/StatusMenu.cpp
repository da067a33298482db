#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

void LanternmoorLauncher::installMenu() {
    auto item = platform_.statusBar.statusItem(platform::StatusBar::variableLength);
    // Each look at the button stands alone: an item without one still gets its menu.
    if (auto* button = item->button()) button->setTitle(std::string(texts::statusTitle));
    if (auto* button = item->button()) button->setFont({12, platform::FontWeight::semibold});
    if (auto* button = item->button()) button->setToolTip(std::string(texts::startingToolTip));
    if (auto* button = item->button()) button->setAccessibilityLabel(std::string(texts::accessibilityLabel));

    auto menu = platform_.statusBar.makeMenu();
    auto self = weak_from_this();
    auto add = [&](std::string_view title, std::optional<platform::MenuAction> action, std::string key, bool enabled) {
        auto entry = menu->makeItem(std::string(title), action, std::move(key));
        if (action) entry->setTarget(self);
        entry->setEnabled(enabled);
        menu->addItem(entry);
        return entry;
    };
    add(texts::menuHeader, std::nullopt, "", false);
    auto open = add(texts::menuOpenWorkspace, platform::MenuAction::openFromMenu, "o", false);
    add(texts::menuGuide, platform::MenuAction::openGuide, "", true);
    add(texts::menuData, platform::MenuAction::openData, "", true);
    menu->addSeparator();
    add(texts::menuQuit, platform::MenuAction::quitFromMenu, "q", true);
    // Enabled flags are exactly what the launcher sets, whatever the targets could do.
    menu->setAutoenablesItems(false);
    item->setMenu(menu);

    statusItem = std::move(item);
    openItem = std::move(open);
}

}  // namespace lm
