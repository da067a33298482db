#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

bool LanternmoorLauncher::claimTheOneAlert() {
    if (failurePresented || shuttingDown) return false;
    // Set before anything is shown, so a request made while this alert is up is dropped.
    failurePresented = true;
    return true;
}

void LanternmoorLauncher::showFailure(std::string title, std::string message) {
    if (!claimTheOneAlert()) return;
    platform::Alert alert{platform::AlertStyle::warning, std::move(title), std::move(message),
                          {std::string(texts::buttonOK)}};
    platform_.application.activateIgnoringOtherApps();
    (void)platform_.alerts.runModal(alert);
    platform_.application.terminate();
}

void LanternmoorLauncher::showPrerequisite(std::string title, std::string message) {
    if (!claimTheOneAlert()) return;
    platform::Alert alert{platform::AlertStyle::informational, std::move(title), std::move(message),
                          {std::string(texts::buttonViewGuide), std::string(texts::buttonQuit)}};
    platform_.application.activateIgnoringOtherApps();
    // The guide opens before termination begins, so it is not lost with the launcher.
    if (platform_.alerts.runModal(alert) == 0) openGuide();
    platform_.application.terminate();
}

void LanternmoorLauncher::showOccupiedPort() {
    showFailure(std::string(texts::occupiedTitle),
                std::string(texts::occupiedHost) + std::to_string(port) + std::string(texts::occupiedMessage));
}

}  // namespace lm
