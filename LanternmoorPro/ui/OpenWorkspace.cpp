#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

void LanternmoorLauncher::openBrowser() {
    auto url = workspaceURL();
    if (platform_.opener.open(url)) return;
    showFailure(std::string(texts::browserTitle),
                std::string(texts::browserMessageLead) + url + std::string(texts::browserMessageAdvice));
}

Task<> LanternmoorLauncher::openWorkspace() {
    if (shuttingDown) co_return;
    // Never opened blind: only our own service gets the browser. shuttingDown is not looked at
    // again, so a quit during the probe still lets an answer of ours open the page.
    auto health = co_await probeHealth();
    switch (health) {
    case Health::ours: co_return openBrowser();
    case Health::foreign: co_return showOccupiedPort();
    case Health::noResponse:
        co_return showFailure(std::string(texts::unavailableTitle), std::string(texts::unavailableMessage));
    }
}

void LanternmoorLauncher::openFromMenu() { spawn(openWorkspace()); }

bool LanternmoorLauncher::applicationShouldHandleReopen(bool /*hasVisibleWindows*/) {
    if (ready) spawn(openWorkspace());
    return false;
}

}  // namespace lm
