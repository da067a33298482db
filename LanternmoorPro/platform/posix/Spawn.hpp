// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <sys/types.h>

#include "LanternmoorPro/platform/Processes.hpp"

namespace lm::platform::posix {

// Whether the configuration sends an output stream to a pipe; both streams given a pipe share one.
bool needsOutputPipe(const ProcessConfiguration& configuration);

// Starts the configured program with posix_spawn, in a process group of its own (a session of
// its own when it outlives the launcher), with no signal blocked or caught. `outputPipe` is the
// writing end for the streams given a pipe. Nothing is ever written to a child's input, so an
// input given a pipe reads end of file like the null device.
Result<pid_t> spawnProcess(const ProcessConfiguration& configuration, int outputPipe);

}  // namespace lm::platform::posix
