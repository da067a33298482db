// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/Network.hpp"

namespace lm::platform::posix {

// A non-blocking connect bounded by poll, which every system honours (a send time-out does not
// bound connect everywhere). Nothing is sent on a connection that is accepted.
class PosixNetwork final : public Network {
public:
    bool loopbackAcceptsConnections(std::uint16_t port) override;
};

}  // namespace lm::platform::posix
