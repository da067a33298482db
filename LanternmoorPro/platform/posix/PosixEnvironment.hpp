// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/Files.hpp"
#include "LanternmoorPro/platform/Processes.hpp"

namespace lm::platform::posix {

// The process's own environment, read afresh at every call.
class PosixEnvironment final : public Environment {
public:
    std::optional<std::string> variable(const std::string& name) const override;
    EnvironmentVariables all() const override;
};

// The three folders, taken from the environment it is given: per-user data by the XDG
// base-directory rules (in a Mac's Library/Application Support), resources beside the program.
class PosixFolders final : public Folders {
public:
    // `programFolder` is the folder of the running executable; empty when it is not known.
    PosixFolders(const Environment& environment, std::string programFolder)
        : environment_(environment), programFolder_(std::move(programFolder)) {}

    // <program folder>/../share/lanternmoor-pro, as installed and as built; in an app bundle,
    // its Contents/Resources.
    std::optional<std::string> resourcesFolder() const override;
    std::vector<std::string> applicationSupportFolders() const override;
    std::string homeFolder() const override;

private:
    const Environment& environment_;
    std::string programFolder_;
};

}  // namespace lm::platform::posix
