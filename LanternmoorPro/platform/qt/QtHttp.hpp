// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QObject>

#include "LanternmoorPro/platform/Network.hpp"

namespace lm::platform::qt {

// HTTP/1.1 GETs to a numeric IPv4 address, on the main thread: a non-blocking socket watched by
// the event loop, so no exchange ever blocks that thread or waits on another, whatever the peer
// does. Each request has a connection of its own, closed once it is answered, so nothing (no
// connection, cookie or cached answer) outlives it. It sends only what HTTP/1.1 needs (Host,
// and Connection: close). Redirects are not followed (the 3xx is the answer) and no content
// coding is asked for, so none is undone. Must be used on the Qt application's thread; `done`
// is called there, unless this object goes first.
class QtHttp final : public Http {
public:
    void get(const HttpRequest& request, std::function<void(HttpResult)> done) override;

private:
    QObject exchanges_;  // the parent of every exchange under way
};

}  // namespace lm::platform::qt
