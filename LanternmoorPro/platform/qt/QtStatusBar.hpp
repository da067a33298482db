// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>
#include <memory>
#include <vector>

#include "LanternmoorPro/platform/UserInterface.hpp"

namespace lm::platform::qt {

class FallbackWindow;

class QtMenuItem final : public MenuItem {
public:
    QtMenuItem(const std::string& title, std::optional<MenuAction> action, const std::string& keyEquivalent);
    void setTarget(std::weak_ptr<MenuTarget> target) override { target_ = std::move(target); }
    void setEnabled(bool enabled) override { action_.setEnabled(enabled); }

    QAction& action() { return action_; }
    const std::optional<MenuAction>& performs() const { return performs_; }

private:
    QAction action_;
    std::optional<MenuAction> performs_;
    std::weak_ptr<MenuTarget> target_;
};

// A menu whose key equivalents also work while it is open: a popup menu holds the keyboard,
// and Qt offers its shortcuts nowhere else then.
class ShortcutMenu final : public QMenu {
protected:
    void keyPressEvent(QKeyEvent* event) override;
};

class QtMenu final : public Menu {
public:
    std::shared_ptr<MenuItem> addItem(std::string title, std::optional<MenuAction> action,
                                      std::string keyEquivalent) override;
    void addSeparator() override;

    QMenu& widget() { return menu_; }
    // In menu order; null for a separator.
    const std::vector<std::shared_ptr<QtMenuItem>>& entries() const { return entries_; }

private:
    ShortcutMenu menu_;
    std::vector<std::shared_ptr<QtMenuItem>> entries_;
};

// The status item is a tray icon showing the application's icon, which draws the title "LM"
// itself, so the title given is not drawn again. It is its own button, so it always has one.
// The icon (and, without a tray, the fallback window) is put up once control is back in the
// event loop, off the path to the launcher's first probe, with the menu complete by then.
class QtStatusItem final : public StatusItem, public StatusButton {
public:
    QtStatusItem();
    ~QtStatusItem() override;
    StatusButton* button() override { return this; }
    Menu& menu() override { return menu_; }

    void setTitle(std::string) override {}
    void setToolTip(std::string toolTip) override;
    // A tray icon has no accessible name of its own; the label goes to the menu and the
    // fallback window, which is what assistive technology reaches.
    void setAccessibilityLabel(std::string label) override;

private:
    void present();

    // Declared first so that the icon and the window, which point at the menu, go before it.
    QtMenu menu_;
    QSystemTrayIcon icon_;
    std::unique_ptr<FallbackWindow> window_;  // null while a tray shows the icon
    QString toolTip_;
    QString accessibilityLabel_;
};

class QtStatusBar final : public StatusBar {
public:
    std::shared_ptr<StatusItem> statusItem() override { return std::make_shared<QtStatusItem>(); }
};

// The application's icon, drawn from its SVG at whatever size is asked.
QIcon applicationIcon();

}  // namespace lm::platform::qt
