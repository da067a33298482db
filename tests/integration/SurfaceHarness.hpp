// The status item and menu built through the platform interfaces the way the launcher builds
// them, with a target that records what the menu asked of it, for both real surfaces.
#pragma once

#include <memory>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::testing {

using platform::MenuAction;

struct RecordingTarget final : platform::MenuTarget {
    std::vector<MenuAction> performed;
    void perform(MenuAction action) override { performed.push_back(action); }
};

inline const std::string startingToolTip = "Lanternmoor Pro · 正在启动";

// The status item, and the open entry: the one entry the launcher switches on and off.
inline auto installLikeTheLauncher(platform::StatusBar& statusBar, std::weak_ptr<platform::MenuTarget> target) {
    auto item = statusBar.statusItem(platform::StatusBar::variableLength);
    item->button()->setTitle("LM");
    item->button()->setFont({12, platform::FontWeight::semibold});
    item->button()->setToolTip(startingToolTip);
    item->button()->setAccessibilityLabel("Lanternmoor Pro");
    auto menu = statusBar.makeMenu();
    auto add = [&](std::string title, std::optional<MenuAction> action, std::string key, bool enabled) {
        auto entry = menu->makeItem(std::move(title), action, std::move(key));
        if (action) entry->setTarget(target);
        entry->setEnabled(enabled);
        menu->addItem(entry);
        return entry;
    };
    add("Lanternmoor Pro · 本机工作区", std::nullopt, "", false);
    auto open = add("打开研究工作区", MenuAction::openFromMenu, "o", false);
    add("安装与使用说明", MenuAction::openGuide, "", true);
    add("打开数据文件夹", MenuAction::openData, "", true);
    menu->addSeparator();
    add("退出 Lanternmoor", MenuAction::quitFromMenu, "q", true);
    menu->setAutoenablesItems(false);
    item->setMenu(menu);
    return std::pair{item, open};
}

}  // namespace lm::testing
