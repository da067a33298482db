// Platform interfaces: standard C++ only. Child processes and the environment they inherit.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LanternmoorPro/platform/Error.hpp"

namespace lm::platform {

// Where one of a child's standard streams goes.
struct Stream {
    enum class Kind {
        inherit,
        nullDevice,
        pipe,
        // Output streams only: a file the child opens for appending, so every write lands at the
        // file's end whoever else writes to it. Created owner-only when missing.
        appendToFile,
        // Standard error only: the same open file as standard output, so both land in the order
        // they were written.
        sameAsOutput,
    };
    Kind kind = Kind::inherit;
    std::string path;  // appendToFile only

    static Stream inherited() { return {}; }
    static Stream nullDevice() { return {Kind::nullDevice, {}}; }
    static Stream pipe() { return {Kind::pipe, {}}; }
    static Stream appendingTo(std::string path) { return {Kind::appendToFile, std::move(path)}; }
    static Stream sameAsOutput() { return {Kind::sameAsOutput, {}}; }
};

using EnvironmentVariables = std::vector<std::pair<std::string, std::string>>;

struct ProcessConfiguration {
    std::string executable;
    bool searchPath = false;                          // look a bare name up on PATH, as a shell would
    std::vector<std::string> arguments;               // without the program name
    std::optional<std::string> workingDirectory;      // none: the launcher's own
    std::optional<EnvironmentVariables> environment;  // none: the launcher's own, whole
    Stream standardInput;
    Stream standardOutput;
    Stream standardError;
    // A program handed over to the user (a browser): a session of its own, and nobody stops it.
    // Every other child is stopped when the launcher ends, if it has not ended by then.
    bool outlivesLauncher = false;
};

// Called once per started process when it has ended, from any thread, with its identifier.
using TerminationHandler = std::function<void(std::int32_t processIdentifier)>;

class ChildProcess {
public:
    // Bytes of standard output kept when it is a pipe; more is drained and dropped, and
    // capturedOutput() then holds one byte over this so a reader can tell.
    static constexpr std::size_t capturedOutputLimit = 64 * 1024;

    virtual ~ChildProcess() = default;
    // Install before start(); replacing it after a failed start is allowed.
    virtual void setTerminationHandler(TerminationHandler handler) = 0;
    virtual Failure start() = 0;
    // False before the start and once the process has ended.
    virtual bool isRunning() const = 0;
    virtual std::int32_t processIdentifier() const = 0;
    // Whether `processIdentifier` names this process or, while it runs, one of the process
    // group it leads.
    virtual bool includes(std::int64_t processIdentifier) const = 0;
    // Exit status once ended; non-zero for a process ended by a signal.
    virtual int terminationStatus() const = 0;
    // Standard output read while the process ran (pipe only), complete once it has ended.
    virtual std::string capturedOutput() const = 0;
    // Polite stop (SIGTERM). Nothing happens to a process that has ended.
    virtual void terminate() = 0;
    // Forced stop (SIGKILL), of the process and every process of its group. Never reaches a
    // process that merely reuses an identifier.
    virtual void kill() = 0;
};

class Processes {
public:
    virtual ~Processes() = default;
    virtual std::shared_ptr<ChildProcess> create(ProcessConfiguration configuration) = 0;
};

class Environment {
public:
    virtual ~Environment() = default;
    // None when the variable is not set at all; an empty text when it is set but empty.
    virtual std::optional<std::string> variable(const std::string& name) const = 0;
    virtual EnvironmentVariables all() const = 0;
};

}  // namespace lm::platform
