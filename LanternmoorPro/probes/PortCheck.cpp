#include "LanternmoorPro/Launcher.hpp"

namespace lm {

// Says only whether something holds the port; who it is is the health probe's question.
bool LanternmoorLauncher::portAcceptsConnections() { return platform_.network.loopbackAcceptsConnections(port); }

}  // namespace lm
