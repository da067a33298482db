// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::qt {

// Each GET runs in a network access manager of its own that is thrown away afterwards, so no
// connection, cookie or cached answer outlives it. Must be used on the Qt application's
// thread; `done` is called there.
class QtHttp final : public Http {
public:
    void get(const HttpRequest& request, std::function<void(HttpResult)> done) override;
};

}  // namespace lm::platform::qt
