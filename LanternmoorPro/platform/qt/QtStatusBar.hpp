// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>
#include <memory>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::qt {

class QtMenuItem final : public MenuItem {
public:
    QtMenuItem(const std::string& title, std::optional<MenuAction> action, const std::string& keyEquivalent);
    void setTarget(std::weak_ptr<MenuTarget> target) override { target_ = std::move(target); }
    void setEnabled(bool enabled) override { action_.setEnabled(enabled); }
    bool isEnabled() const override { return action_.isEnabled(); }

    QAction& action() { return action_; }

private:
    QAction action_;
    std::weak_ptr<MenuTarget> target_;
};

class QtMenu final : public Menu {
public:
    std::shared_ptr<MenuItem> makeItem(std::string title, std::optional<MenuAction> action,
                                       std::string keyEquivalent) override;
    void addItem(std::shared_ptr<MenuItem> item) override;
    void addSeparator() override { menu_.addSeparator(); }
    // FIXME: Qt has no automatic enabling to switch off; the flags are always exactly what
    // the launcher sets, which is what switching it off asks for.
    void setAutoenablesItems(bool) override {}

    QMenu& widget() { return menu_; }

private:
    QMenu menu_;
    std::vector<std::shared_ptr<QtMenuItem>> items_;
};

// The status item is a tray icon whose picture is the title drawn in the requested font; it
// is its own button, so it always has one.
class QtStatusItem final : public StatusItem, public StatusButton {
public:
    QtStatusItem();
    StatusButton* button() override { return this; }
    void setMenu(std::shared_ptr<Menu> menu) override;

    void setTitle(std::string title) override;
    void setFont(Font font) override;
    void setToolTip(std::string toolTip) override { icon_.setToolTip(QString::fromStdString(toolTip)); }
    // A tray icon has no accessible name of its own; the label goes to the menu, which is
    // what assistive technology reaches.
    void setAccessibilityLabel(std::string label) override;

    QSystemTrayIcon& trayIcon() { return icon_; }

private:
    void redraw();
    void applyAccessibilityLabel();

    // Declared first so that the icon, which points at the menu, goes before it.
    std::shared_ptr<QtMenu> menu_;
    QSystemTrayIcon icon_;
    QString title_;
    Font font_;
    QString accessibilityLabel_;
};

class QtStatusBar final : public StatusBar {
public:
    // A tray icon has one size, set by the tray, whatever length is asked for.
    std::shared_ptr<StatusItem> statusItem(double length) override;
    std::shared_ptr<Menu> makeMenu() override { return std::make_shared<QtMenu>(); }
};

}  // namespace lm::platform::qt
