// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/UserInterface.hpp"

namespace lm::platform::qt {

// A QMessageBox with the alert's title as both window title and text, its message as the
// informative text, and its buttons left to right in the order given.
class QtAlerts final : public Alerts {
public:
    std::size_t runModal(const Alert& alert) override;
};

}  // namespace lm::platform::qt
