#include "LanternmoorPro/Launcher.hpp"

namespace lm {

namespace {

// Keeps the launcher alive for as long as the task runs, whoever else lets go of it.
Task<> holding(std::shared_ptr<LanternmoorLauncher> /*launcher*/, Task<> task) { co_await std::move(task); }

}  // namespace

LanternmoorLauncher::LanternmoorLauncher(platform::Platform& platform, std::uint16_t port)
    : port(port), platform_(platform) {}

void LanternmoorLauncher::applicationDidFinishLaunching() {
    // The status item is up in its starting presentation before the first probe goes out.
    installMenu();
    spawnHolding(startOrConnect());
}

void LanternmoorLauncher::perform(platform::MenuAction action) {
    switch (action) {
    case platform::MenuAction::openFromMenu: return openFromMenu();
    case platform::MenuAction::openGuide: return openGuide();
    case platform::MenuAction::openData: return openData();
    case platform::MenuAction::quitFromMenu: return quitFromMenu();
    }
}

void LanternmoorLauncher::spawnHolding(Task<> task) {
    platform::spawn(platform_.mainThread, holding(shared_from_this(), std::move(task)));
}

void LanternmoorLauncher::setToolTip(std::string_view text) {
    if (!statusItem) return;
    if (auto* button = statusItem->button()) button->setToolTip(std::string(text));
}

std::string LanternmoorLauncher::searchPath() const {
    return platform_.environment.variable("PATH").value_or("/usr/bin:/bin:/usr/sbin:/sbin");
}

int runLauncher(platform::Platform& platform) {
    auto launcher = std::make_shared<LanternmoorLauncher>(platform);
    platform.application.setDelegate(launcher);
    platform.application.setActivationPolicy(platform::ActivationPolicy::accessory);
    return platform.application.run();
}

}  // namespace lm
