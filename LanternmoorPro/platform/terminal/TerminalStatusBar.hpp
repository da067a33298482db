// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include <memory>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

namespace lm::platform::terminal {

class TerminalMenuItem final : public MenuItem {
public:
    TerminalMenuItem(std::optional<MenuAction> action, std::string keyEquivalent)
        : action_(action), keyEquivalent_(std::move(keyEquivalent)) {}
    void setTarget(std::weak_ptr<MenuTarget> target) override { target_ = std::move(target); }
    void setEnabled(bool enabled) override { enabled_ = enabled; }
    bool isEnabled() const override { return enabled_; }

    const std::string& keyEquivalent() const { return keyEquivalent_; }
    // What picking it in a menu does: nothing when it is a label, disabled, or its target gone.
    void choose();

private:
    std::optional<MenuAction> action_;
    std::string keyEquivalent_;
    bool enabled_ = true;
    std::weak_ptr<MenuTarget> target_;
};

// Entries are picked by typing their key equivalent or their place in the menu, counting
// from 1 with separators included, so the numbers stay those of the menu as it would be drawn.
class TerminalMenu final : public Menu {
public:
    std::shared_ptr<MenuItem> makeItem(std::string title, std::optional<MenuAction> action,
                                       std::string keyEquivalent) override;
    void addItem(std::shared_ptr<MenuItem> item) override;
    void addSeparator() override { entries_.push_back(nullptr); }
    // Nothing is ever enabled but by the launcher, which is what switching this off asks for.
    void setAutoenablesItems(bool) override {}

    void choose(std::string_view typed);

private:
    std::vector<std::shared_ptr<TerminalMenuItem>> entries_;  // null: a separator
};

enum class MenuInput { typed, none };

// Prints "<title>  <tooltip>" for every tooltip it is given; the title, font and label are
// only kept. With typed menu input, lines typed while no alert waits pick menu entries.
class TerminalStatusItem final : public StatusItem, public StatusButton {
public:
    TerminalStatusItem(TerminalInput& input, TerminalOutput& output, MenuInput menuInput)
        : input_(input), output_(output), menuInput_(menuInput) {}
    StatusButton* button() override { return this; }
    void setMenu(std::shared_ptr<Menu> menu) override;

    void setTitle(std::string title) override { title_ = std::move(title); }
    void setFont(Font) override {}
    void setToolTip(std::string toolTip) override { output_.writeLine(title_ + "  " + toolTip); }
    void setAccessibilityLabel(std::string) override {}

private:
    TerminalInput& input_;
    TerminalOutput& output_;
    MenuInput menuInput_;
    std::string title_;
    std::shared_ptr<TerminalMenu> menu_;
};

class TerminalStatusBar final : public StatusBar {
public:
    TerminalStatusBar(TerminalInput& input, TerminalOutput& output, MenuInput menuInput)
        : input_(input), output_(output), menuInput_(menuInput) {}
    std::shared_ptr<StatusItem> statusItem(double) override;
    std::shared_ptr<Menu> makeMenu() override { return std::make_shared<TerminalMenu>(); }

private:
    TerminalInput& input_;
    TerminalOutput& output_;
    MenuInput menuInput_;
};

}  // namespace lm::platform::terminal
