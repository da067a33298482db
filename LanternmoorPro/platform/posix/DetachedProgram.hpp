// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <string>
#include <vector>

#include "LanternmoorPro/platform/Error.hpp"

namespace lm::platform::posix {

// Starts a program (looked up on PATH like a shell would) that outlives nothing of ours:
// a session of its own, standard input from /dev/null, standard output and error shared with
// the launcher, no other descriptor, default signal handling. It is reaped in the
// background, so it never lingers as a zombie. Fails only when it cannot be started.
Failure startDetached(const std::string& program, const std::vector<std::string>& arguments);

}  // namespace lm::platform::posix
