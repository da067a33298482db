#include "LanternmoorPro/Launcher.hpp"

namespace lm {

std::optional<std::string> LanternmoorLauncher::findCodex() {
    std::vector<std::string> candidates{
        "/Applications/ChatGPT.app/Contents/Resources/codex-cli/CodexCLI.app/Contents/MacOS/codex",
        "/Applications/Codex.app/Contents/Resources/codex",
        "/opt/homebrew/bin/codex",
        "/usr/local/bin/codex",
        homeFolderPath() + "/.local/bin/codex",
    };
    for (auto& entry : searchPathEntries(searchPath())) candidates.push_back(entry + "/codex");
    // Nothing is run, so a candidate named twice is simply looked at twice.
    for (auto& candidate : candidates)
        if (platform_.files.isExecutableFile(candidate)) return candidate;
    return std::nullopt;
}

}  // namespace lm
