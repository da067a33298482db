// Real files and real child processes for the integration tests.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "integration/ProbeHarness.hpp"

namespace lm::testing {

using namespace std::chrono_literals;

struct TemporaryFolder {
    std::string path = (std::filesystem::temp_directory_path() / "lm-test-XXXXXX").string();
    std::error_code ignored;
    TemporaryFolder() { ::mkdtemp(path.data()); }
    ~TemporaryFolder() { std::filesystem::remove_all(path, ignored); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::string writeFile(const std::string& path, const std::string& content, unsigned mode = 0644) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    std::filesystem::permissions(path, std::filesystem::perms(mode));
    return path;
}

inline std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline unsigned modeOf(const std::string& path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds limit = 5s) {
    for (auto deadline = std::chrono::steady_clock::now() + limit; !done(); std::this_thread::sleep_for(5ms)) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
    }
    return true;
}

// Shared with the handler, so a test that fails early leaves nothing for a late report to write into.
struct Reports {
    std::mutex mutex;
    std::vector<std::int32_t> identifiers;

    static platform::TerminationHandler handlerFor(const std::shared_ptr<Reports>& reports) {
        return [reports](std::int32_t identifier) {
            std::lock_guard lock(reports->mutex);
            reports->identifiers.push_back(identifier);
        };
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds limit = 10s) {
        return eventually([&] { std::lock_guard lock(mutex); return identifiers.size() >= count; }, limit);
    }
};

// Signal 0 still reaches a zombie, so this means reaped as well as ended.
inline bool isGone(std::int32_t processIdentifier) { return ::kill(processIdentifier, 0) != 0; }

// The launcher on real processes, files and main thread; the environment is the fake one so a
// test sets PATH without touching its own.
struct LocalPlatform : QtFakes {
    // After the main thread, so it goes first and no late report is posted to a gone loop.
    platform::posix::PosixProcesses processes;
    platform::posix::PosixFileSystem files;
    platform::Platform platform = assemble(processes, files, http, json, network);
    std::shared_ptr<LanternmoorLauncher> launcher = std::make_shared<LanternmoorLauncher>(platform);
};

}  // namespace lm::testing
