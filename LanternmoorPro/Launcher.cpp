#include "LanternmoorPro/Launcher.hpp"

namespace lm {

LanternmoorLauncher::LanternmoorLauncher(platform::Platform& platform, std::uint16_t port)
    : port(port), platform_(platform) {}

void LanternmoorLauncher::applicationDidFinishLaunching() {
    // The status item is up in its starting presentation before the first probe goes out.
    installMenu();
    spawn(startOrConnect());
}

void LanternmoorLauncher::perform(platform::MenuAction action) {
    switch (action) {
    case platform::MenuAction::openFromMenu: return openFromMenu();
    case platform::MenuAction::openGuide: return openGuide();
    case platform::MenuAction::openData: return openData();
    case platform::MenuAction::quitFromMenu: return quitFromMenu();
    }
}

// The launcher owns its tasks: one still suspended when the launcher goes is ended with it.
void LanternmoorLauncher::spawn(Task<> task) { tasks_.spawn(platform_.mainThread, std::move(task)); }

void LanternmoorLauncher::setToolTip(std::string_view text) {
    if (!statusItem) return;
    if (auto* button = statusItem->button()) button->setToolTip(std::string(text));
}

std::string LanternmoorLauncher::searchPath() const {
    return platform_.environment.variable("PATH").value_or("/usr/bin:/bin:/usr/sbin:/sbin");
}

int runLauncher(platform::Platform& platform) {
    // The one reference that keeps the launcher alive: it and its unfinished tasks go when the
    // event loop has ended.
    auto launcher = std::make_shared<LanternmoorLauncher>(platform);
    platform.application.setDelegate(launcher);
    return platform.application.run();
}

}  // namespace lm
