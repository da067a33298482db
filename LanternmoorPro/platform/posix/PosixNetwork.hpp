// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::posix {

// A blocking connect whose length is capped by the socket's send time-out, which Linux also
// applies to connect. Nothing is sent on a connection that is accepted.
class PosixNetwork final : public Network {
public:
    bool loopbackAcceptsConnections(std::uint16_t port) override;
};

}  // namespace lm::platform::posix
