// The status item and menu built through the platform interfaces the way the launcher builds
// them, with a target that records what the menu asked of it, for both real surfaces.
#pragma once

#include <QCoreApplication>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::testing {

using platform::MenuAction;

struct RecordingTarget final : platform::MenuTarget {
    std::vector<MenuAction> performed;
    void perform(MenuAction action) override { performed.push_back(action); }
};

inline const std::string startingToolTip = "Lanternmoor Pro · 正在启动";
inline const std::string runningToolTip = "Lanternmoor Pro · 正在本机运行";
inline const std::string stoppedToolTip = "Lanternmoor Pro · 服务已停止";

struct InstalledMenu {
    std::shared_ptr<platform::StatusItem> statusItem;
    std::shared_ptr<platform::MenuItem> openItem;
};

inline InstalledMenu installLikeTheLauncher(platform::StatusBar& statusBar, std::weak_ptr<platform::MenuTarget> target) {
    auto statusItem = statusBar.statusItem(platform::StatusBar::variableLength);
    if (auto* button = statusItem->button()) {
        button->setTitle("LM");
        button->setFont({12, platform::FontWeight::semibold});
        button->setToolTip(startingToolTip);
        button->setAccessibilityLabel("Lanternmoor Pro");
    }
    auto menu = statusBar.makeMenu();
    auto add = [&](std::string title, std::optional<MenuAction> action, std::string key, bool enabled) {
        auto item = menu->makeItem(std::move(title), action, std::move(key));
        if (action) item->setTarget(target);
        if (!enabled) item->setEnabled(false);
        menu->addItem(item);
        return item;
    };
    add("Lanternmoor Pro · 本机工作区", std::nullopt, "", false);
    auto openItem = add("打开研究工作区", MenuAction::openFromMenu, "o", false);
    add("安装与使用说明", MenuAction::openGuide, "", true);
    add("打开数据文件夹", MenuAction::openData, "", true);
    menu->addSeparator();
    add("退出 Lanternmoor", MenuAction::quitFromMenu, "q", true);
    menu->setAutoenablesItems(false);
    statusItem->setMenu(menu);
    return {statusItem, openItem};
}

// Serves the event loop until `done` holds or two seconds have passed; whether it held.
inline bool serveEventsUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace lm::testing
