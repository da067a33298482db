// Real files and real child processes for the integration tests: a temporary folder that
// cleans up after itself, shell scripts written into it, a record of termination reports that
// a test can wait on, and what /proc says about a process identifier.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::testing {

using namespace std::chrono_literals;

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lm-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        // A test may leave a folder without write permission behind.
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& content, unsigned mode = 0644) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ::chmod(path.c_str(), mode);
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

inline std::string writeScript(const std::string& path, const std::string& body, unsigned mode = 0755) {
    writeFile(path, "#!/bin/sh\n" + body + "\n", mode);
    return path;
}

inline unsigned modeOf(const std::string& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 07777;
}

// Termination reports as the watch thread delivers them. Shared with the handler, so a test
// that fails early leaves nothing for a late report to write into.
class Reports {
public:
    static platform::TerminationHandler handlerFor(const std::shared_ptr<Reports>& reports) {
        return [reports](std::int32_t processIdentifier) { reports->add(processIdentifier); };
    }

    bool waitFor(std::size_t count, std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, limit, [&] { return identifiers_.size() >= count; });
    }

    std::vector<std::int32_t> identifiers() const {
        std::lock_guard lock(mutex_);
        return identifiers_;
    }

private:
    void add(std::int32_t processIdentifier) {
        std::lock_guard lock(mutex_);
        identifiers_.push_back(processIdentifier);
        arrived_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::int32_t> identifiers_;
};

// The state letter and parent of a process, from /proc; none once it is gone for good.
struct ProcessStatus {
    char state = '?';
    pid_t parent = 0;
};

inline std::optional<ProcessStatus> processStatus(std::int32_t processIdentifier) {
    std::ifstream file("/proc/" + std::to_string(processIdentifier) + "/stat");
    std::string line;
    if (!std::getline(file, line)) return std::nullopt;
    // The command name in parentheses may itself hold spaces and parentheses.
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    ProcessStatus status;
    rest >> status.state >> status.parent;
    return status;
}

inline bool isZombieChild(std::int32_t processIdentifier) {
    auto status = processStatus(processIdentifier);
    return status && status->parent == ::getpid() && status->state == 'Z';
}

// Neither running nor waiting to be reaped. (Identifiers are not reused within a test's few
// seconds on any machine with a normal pid_max.)
inline bool isGone(std::int32_t processIdentifier) { return !processStatus(processIdentifier).has_value(); }

template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds limit = 5s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

}  // namespace lm::testing
