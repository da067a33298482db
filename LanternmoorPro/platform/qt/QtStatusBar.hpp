// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QAction>
#include <QLabel>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QWidget>
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
    std::shared_ptr<MenuItem> makeItem(std::string title, std::optional<MenuAction> action,
                                       std::string keyEquivalent) override;
    void addItem(std::shared_ptr<MenuItem> item) override;
    void addSeparator() override;
    // Qt has no automatic enabling to switch off; the flags are always exactly what the
    // launcher sets, which is what switching it off asks for.
    void setAutoenablesItems(bool) override {}

    QMenu& widget() { return menu_; }
    // In menu order; null for a separator.
    const std::vector<std::shared_ptr<QtMenuItem>>& entries() const { return entries_; }

private:
    ShortcutMenu menu_;
    std::vector<std::shared_ptr<QtMenuItem>> entries_;
};

// Where no system tray shows the icon: a small window with the status text and the menu's
// entries as buttons, which follow the entries' enabled flags and take their key equivalents.
// Closing it is choosing the menu's quit.
class FallbackWindow final : public QWidget {
public:
    FallbackWindow(QtMenu& menu, const QString& title);
    void setStatus(const QString& text) { status_.setText(text); }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QtMenu& menu_;
    QLabel status_;
};

// The status item is a tray icon showing the application's icon, which draws the title "LM"
// itself; the title and font given are kept but not drawn again. It is its own button, so it
// always has one. The icon (and, without a tray, the fallback window) is put up once control is
// back in the event loop, off the path to the launcher's first probe.
class QtStatusItem final : public StatusItem, public StatusButton {
public:
    QtStatusItem();
    StatusButton* button() override { return this; }
    void setMenu(std::shared_ptr<Menu> menu) override;

    void setTitle(std::string) override {}
    void setFont(Font) override {}
    void setToolTip(std::string toolTip) override;
    // A tray icon has no accessible name of its own; the label goes to the menu and the
    // fallback window, which is what assistive technology reaches.
    void setAccessibilityLabel(std::string label) override;

private:
    void present();

    // Declared first so that the icon and the window, which point at the menu, go before it.
    std::shared_ptr<QtMenu> menu_;
    QSystemTrayIcon icon_;
    std::unique_ptr<FallbackWindow> window_;  // null while a tray shows the icon
    QString toolTip_;
    QString accessibilityLabel_;
};

class QtStatusBar final : public StatusBar {
public:
    // A tray icon has one size, set by the tray, whatever length is asked for.
    std::shared_ptr<StatusItem> statusItem(double length) override;
    std::shared_ptr<Menu> makeMenu() override { return std::make_shared<QtMenu>(); }
};

// The application's icon, drawn from its SVG at whatever size is asked.
QIcon applicationIcon();

}  // namespace lm::platform::qt
