// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::posix {

// The process's own environment, read afresh at every call.
class PosixEnvironment final : public Environment {
public:
    std::optional<std::string> variable(const std::string& name) const override;
    EnvironmentVariables all() const override;
};

// The three folders by the XDG base-directory rules, taken from the environment it is given.
class PosixFolders final : public Folders {
public:
    explicit PosixFolders(const Environment& environment) : environment_(environment) {}

    // <folder of the running executable>/../share/lanternmoor-pro, as installed and as built.
    std::optional<std::string> resourcesFolder() const override;
    std::vector<std::string> applicationSupportFolders() const override;
    std::string homeFolder() const override;

private:
    const Environment& environment_;
};

}  // namespace lm::platform::posix
