// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/UserInterface.hpp"

namespace lm::platform::qt {

// Hands the URL to the desktop's default application for it.
class QtOpener final : public Opener {
public:
    bool open(const std::string& url) override;
};

}  // namespace lm::platform::qt
