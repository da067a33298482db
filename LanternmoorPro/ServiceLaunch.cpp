#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/Text.hpp"

namespace lm {

namespace {

void setVariable(platform::EnvironmentVariables& variables, const std::string& name, std::string value) {
    for (auto& [key, current] : variables) {
        if (key == name) {
            current = std::move(value);
            return;
        }
    }
    variables.emplace_back(name, std::move(value));
}

// The folder a program lies in, as text: its path with the last component removed.
std::string folderOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    auto folder = platform::withoutTrailingSlashes(path.substr(0, slash));
    return folder.empty() ? "/" : folder;
}

}  // namespace

platform::Result<std::shared_ptr<platform::ChildProcess>> LanternmoorLauncher::launchService(
    const std::string& nodePath, const std::string& codexPath, const FileLocation& appRoot,
    const FileLocation& dataFolder) {
    platform::ProcessConfiguration configuration;
    configuration.executable = nodePath;
    configuration.arguments = {"--experimental-strip-types", appRoot.appending("server.mjs").path};
    configuration.workingDirectory = appRoot.path;

    auto environment = platform_.environment.all();
    setVariable(environment, "LANTERNMOOR_APP_DIR", appRoot.path);
    setVariable(environment, "LANTERNMOOR_DATA_DIR", dataFolder.path);
    setVariable(environment, "LANTERNMOOR_PORT", std::to_string(port));
    setVariable(environment, "LANTERNMOOR_CODEX_PATH", codexPath);
    // Not de-duplicated on purpose: the service sees exactly this order.
    setVariable(environment, "PATH", folderOf(nodePath) + ":" + homeFolderPath() + "/.local/bin:" + searchPath());
    configuration.environment = std::move(environment);

    configuration.standardInput = platform::Stream::nullDevice();
    // One open file for both streams keeps the log in the order the service wrote it; appending,
    // like logHandle, so another launcher's service writing to it never overwrites a byte.
    configuration.standardOutput = platform::Stream::appendingTo(dataFolder.appending("server.log").path);
    configuration.standardError = platform::Stream::sameAsOutput();

    auto process = platform_.processes.create(std::move(configuration));
    // The handler may run on any thread and the launcher may be gone by then: it only carries
    // the identifier to the main thread, through a weak reference.
    process->setTerminationHandler([launcher = weak_from_this(), &mainThread = platform_.mainThread](std::int32_t pid) {
        mainThread.post([launcher, pid] {
            if (auto alive = launcher.lock()) alive->childExited(pid);
        });
    });
    ownedProcess = process;
    if (auto failure = process->start()) return *failure;
    return process;
}

}  // namespace lm
