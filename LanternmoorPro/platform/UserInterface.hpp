// Platform interfaces: standard C++ only. What the user sees: the status item and its menu,
// alerts, and the applications URLs are handed to.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lm::platform {

class Opener {
public:
    virtual ~Opener() = default;
    // Hands a URL (http or file) to the user's default application; whether it took it.
    virtual bool open(const std::string& url) = 0;
};

enum class AlertStyle { warning, informational };

struct Alert {
    AlertStyle style = AlertStyle::warning;
    std::string title;
    std::string message;
    std::vector<std::string> buttons;  // left to right; the first is the default
};

class Alerts {
public:
    virtual ~Alerts() = default;
    // Modal: returns once the user answered, with the index of the button. An alert that
    // cannot be answered counts as its last button.
    virtual std::size_t runModal(const Alert& alert) = 0;
};

enum class MenuAction { openFromMenu, openGuide, openData, quitFromMenu };

class MenuTarget {
public:
    virtual ~MenuTarget() = default;
    virtual void perform(MenuAction action) = 0;
};

class MenuItem {
public:
    virtual ~MenuItem() = default;
    virtual void setTarget(std::weak_ptr<MenuTarget> target) = 0;
    virtual void setEnabled(bool enabled) = 0;
};

class Menu {
public:
    virtual ~Menu() = default;
    // Appends an entry, enabled, and hands it back. No action: a label.
    virtual std::shared_ptr<MenuItem> addItem(std::string title, std::optional<MenuAction> action,
                                              std::string keyEquivalent) = 0;
    virtual void addSeparator() = 0;
};

class StatusButton {
public:
    virtual ~StatusButton() = default;
    virtual void setTitle(std::string title) = 0;
    virtual void setToolTip(std::string toolTip) = 0;
    virtual void setAccessibilityLabel(std::string label) = 0;
};

class StatusItem {
public:
    virtual ~StatusItem() = default;
    // May be absent; then nothing of the title, tooltip or label can be shown.
    virtual StatusButton* button() = 0;
    // The item's own menu, which its click opens.
    virtual Menu& menu() = 0;
};

class StatusBar {
public:
    virtual ~StatusBar() = default;
    // An item as wide as its title, there until the launcher ends.
    virtual std::shared_ptr<StatusItem> statusItem() = 0;
};

}  // namespace lm::platform
