#include "LanternmoorPro/platform/posix/Displays.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <string>

#if !defined(__APPLE__)
#include <xcb/xcb.h>
#endif

#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::posix {
namespace {

bool isSet(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

#if !defined(__APPLE__)
// Opening it for real is the only sure answer: the server may be gone, or refuse us.
bool x11DisplayOpens() {
    if (!isSet("DISPLAY")) return false;
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    const bool opened = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    return opened;
}

// A compositor listens on a local socket: absolute, or in the runtime folder.
bool waylandDisplayOpens() {
    if (!isSet("WAYLAND_DISPLAY")) return false;
    std::string path = std::getenv("WAYLAND_DISPLAY");
    if (path.front() != '/') {
        if (!isSet("XDG_RUNTIME_DIR")) return false;
        path = std::string(std::getenv("XDG_RUNTIME_DIR")) + "/" + path;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}
#endif

}  // namespace

const char* Displays::qtPlatform() const {
    if (x11 && wayland) return nullptr;
    if (x11) return "xcb";
    if (wayland) return "wayland";
    return nullptr;
}

Displays usableDisplays() {
#if defined(__APPLE__)
    return Displays{false, false, true};
#else
    return Displays{x11DisplayOpens(), waylandDisplayOpens()};
#endif
}

}  // namespace lm::platform::posix
