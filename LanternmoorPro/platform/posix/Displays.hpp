// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

namespace lm::platform::posix {

// Which displays the environment names and this process can open: DISPLAY's X server,
// WAYLAND_DISPLAY's compositor. Asked before Qt's GUI starts, which aborts when the display it
// picks cannot be opened (a stale DISPLAY over SSH, a session that has closed).
struct Displays {
    bool x11 = false;
    bool wayland = false;
    bool menuBar = false;  // a Mac's, always there

    bool any() const { return x11 || wayland || menuBar; }
    // The Qt platform to ask for: the one display that opens, or none to let Qt choose.
    const char* qtPlatform() const;
};

Displays usableDisplays();

}  // namespace lm::platform::posix
