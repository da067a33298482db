// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include <memory>
#include <vector>

#include "LanternmoorPro/platform/UserInterface.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

namespace lm::platform::terminal {

class TerminalMenuItem final : public MenuItem {
public:
    TerminalMenuItem(std::optional<MenuAction> action, std::string keyEquivalent)
        : action_(action), keyEquivalent_(std::move(keyEquivalent)) {}
    void setTarget(std::weak_ptr<MenuTarget> target) override { target_ = std::move(target); }
    void setEnabled(bool enabled) override { enabled_ = enabled; }

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
    std::shared_ptr<MenuItem> addItem(std::string title, std::optional<MenuAction> action,
                                      std::string keyEquivalent) override;
    void addSeparator() override { entries_.push_back(nullptr); }

    void choose(std::string_view typed);

private:
    std::vector<std::shared_ptr<TerminalMenuItem>> entries_;  // null: a separator
};

enum class MenuInput { typed, none };

// Prints "<title>  <tooltip>" for every tooltip it is given; the label is not shown. With typed
// menu input, lines typed while no alert waits pick menu entries.
class TerminalStatusItem final : public StatusItem, public StatusButton {
public:
    TerminalStatusItem(TerminalInput& input, TerminalOutput& output, MenuInput menuInput);
    ~TerminalStatusItem() override;
    StatusButton* button() override { return this; }
    Menu& menu() override { return *menu_; }

    void setTitle(std::string title) override { title_ = std::move(title); }
    void setToolTip(std::string toolTip) override { output_.writeLine(title_ + "  " + toolTip); }
    void setAccessibilityLabel(std::string) override {}

private:
    TerminalOutput& output_;
    std::string title_;
    // Shared with the input's line handler, which holds it weakly: the input outlives the item.
    std::shared_ptr<TerminalMenu> menu_ = std::make_shared<TerminalMenu>();
};

class TerminalStatusBar final : public StatusBar {
public:
    TerminalStatusBar(TerminalInput& input, TerminalOutput& output, MenuInput menuInput)
        : input_(input), output_(output), menuInput_(menuInput) {}
    std::shared_ptr<StatusItem> statusItem() override;

private:
    TerminalInput& input_;
    TerminalOutput& output_;
    MenuInput menuInput_;
};

}  // namespace lm::platform::terminal
