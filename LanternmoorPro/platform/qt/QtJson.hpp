// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include "LanternmoorPro/platform/Network.hpp"

namespace lm::platform::qt {

class QtJson final : public Json {
public:
    std::optional<std::string> stringMemberOfObject(std::string_view text, std::string_view key) const override;
    std::optional<std::int64_t> integerMemberOfObject(std::string_view text, std::string_view key) const override;
};

}  // namespace lm::platform::qt
