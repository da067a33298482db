// Platform interfaces: standard C++ only. The launcher reaches the world through these and
// nothing else; the real implementations live in posix/, qt/ and terminal/, the fake in tests/.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LanternmoorPro/platform/Error.hpp"

namespace lm::platform {

// ---- main thread -------------------------------------------------------------------------

class MainThread {
public:
    virtual ~MainThread() = default;
    // Runs `task` on the main thread later, in posting order. Safe from any thread.
    virtual void post(std::function<void()> task) = 0;
    // Runs `task` on the main thread once `delay` has passed.
    virtual void postAfter(std::chrono::nanoseconds delay, std::function<void()> task) = 0;
    virtual std::chrono::system_clock::time_point now() const = 0;
};

// ---- application -------------------------------------------------------------------------

enum class TerminateReply { cancel = 0, now = 1, later = 2 };
enum class ActivationPolicy { regular = 0, accessory = 1, prohibited = 2 };

// What the application asks of the one object that runs the launcher. All on the main thread.
class ApplicationDelegate {
public:
    virtual ~ApplicationDelegate() = default;
    virtual void applicationDidFinishLaunching() = 0;
    virtual bool applicationShouldHandleReopen(bool hasVisibleWindows) = 0;
    virtual TerminateReply applicationShouldTerminate() = 0;
    virtual void applicationWillTerminate() = 0;
};

class Application {
public:
    virtual ~Application() = default;
    // The application does not keep its delegate alive.
    virtual void setDelegate(std::weak_ptr<ApplicationDelegate> delegate) = 0;
    virtual void setActivationPolicy(ActivationPolicy policy) = 0;
    // The event loop: tells the delegate that launching finished, then serves events until
    // termination ends it. Returns the exit status.
    virtual int run() = 0;
    // Begins termination: asks the delegate, then ends at once (now) or waits for the late
    // reply (later) while main-thread tasks go on running.
    virtual void terminate() = 0;
    virtual void replyToApplicationShouldTerminate(bool shouldTerminate) = 0;
    // Brings the launcher in front of other applications before an alert.
    virtual void activateIgnoringOtherApps() = 0;
};

// ---- child processes ---------------------------------------------------------------------

// A file open for appending. Also what a child process can get as an output stream.
class FileHandle {
public:
    virtual ~FileHandle() = default;
    virtual Failure write(std::string_view bytes) = 0;
    virtual Failure close() = 0;
};

struct Stream {
    enum class Kind { inherit, nullDevice, pipe, file };
    Kind kind = Kind::inherit;
    std::shared_ptr<FileHandle> file;  // only for Kind::file

    static Stream inherited() { return {}; }
    static Stream nullDevice() { return {Kind::nullDevice, nullptr}; }
    static Stream pipe() { return {Kind::pipe, nullptr}; }
    static Stream toFile(std::shared_ptr<FileHandle> handle) { return {Kind::file, std::move(handle)}; }
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

// ---- files -------------------------------------------------------------------------------

class FileSystem {
public:
    virtual ~FileSystem() = default;
    virtual bool fileExists(const std::string& path) const = 0;
    // Something exists at the path and the current user may execute it (and it is no folder).
    virtual bool isExecutableFile(const std::string& path) const = 0;
    // Creates the folder and any missing parents with `mode`; an existing folder is fine.
    virtual Failure createDirectories(const std::string& path, unsigned mode) = 0;
    virtual Failure setMode(const std::string& path, unsigned mode) = 0;
    // Creates an empty file with `mode`; one that exists already is fine and stays as it is.
    virtual Failure createFile(const std::string& path, unsigned mode) = 0;
    // Opens an existing file for appending, never truncated: every write lands at its end,
    // whoever else writes to it.
    virtual Result<std::shared_ptr<FileHandle>> openForWriting(const std::string& path) = 0;
};

// ---- network -----------------------------------------------------------------------------

struct HttpRequest {
    std::string url;
    std::chrono::milliseconds idleTimeout;   // no data for this long ends the exchange
    std::chrono::milliseconds totalTimeout;  // the whole exchange ends by then in any case
    // Body bytes worth keeping; a longer body may be cut off at bodyLimit + 1 bytes.
    std::size_t bodyLimit;
};

struct HttpResult {
    enum class Kind { transportError, notHttp, reply };
    Kind kind = Kind::transportError;
    int status = 0;
    std::string body;  // after transfer and content decoding

    static HttpResult failed() { return {}; }
    static HttpResult reply(int status, std::string body) { return {Kind::reply, status, std::move(body)}; }
};

class Http {
public:
    virtual ~Http() = default;
    // One GET in a session of its own: no cookies, no cache, nothing shared with any other
    // request. `done` is called exactly once, from any thread.
    virtual void get(const HttpRequest& request, std::function<void(HttpResult)> done) = 0;
};

class Json {
public:
    virtual ~Json() = default;
    // The string value of `key` when `text` is JSON whose top level is an object holding
    // that key with a string value; none in every other case.
    virtual std::optional<std::string> stringMemberOfObject(std::string_view text, std::string_view key) const = 0;
    // Likewise for a member whose value is a whole number.
    virtual std::optional<std::int64_t> integerMemberOfObject(std::string_view text, std::string_view key) const = 0;
};

class Network {
public:
    virtual ~Network() = default;
    // One connection attempt to 127.0.0.1:port, bounded at about a second.
    virtual bool loopbackAcceptsConnections(std::uint16_t port) = 0;
};

// ---- the user's surface ------------------------------------------------------------------

class Opener {
public:
    virtual ~Opener() = default;
    // Hands a URL (http or file) to the user's default application; whether it took it.
    virtual bool open(const std::string& url) = 0;
};

enum class AlertStyle { warning = 0, informational = 1, critical = 2 };

struct Alert {
    AlertStyle style = AlertStyle::warning;
    std::string title;
    std::string message;
    std::vector<std::string> buttons;  // left to right; the first is the default
};

class Alerts {
public:
    static constexpr int firstButton = 1000;

    virtual ~Alerts() = default;
    // Modal: returns once the user answered, with firstButton + the index of the button.
    // An alert that cannot be answered counts as its last button.
    virtual int runModal(const Alert& alert) = 0;
};

enum class MenuAction { openFromMenu, openGuide, openData, quitFromMenu };

class MenuTarget {
public:
    virtual ~MenuTarget() = default;
    virtual void perform(MenuAction action) = 0;
};

enum class FontWeight { regular, semibold, bold };

struct Font {
    double pointSize = 12;
    FontWeight weight = FontWeight::regular;
    friend bool operator==(const Font&, const Font&) = default;
};

class MenuItem {
public:
    virtual ~MenuItem() = default;
    virtual void setTarget(std::weak_ptr<MenuTarget> target) = 0;
    virtual void setEnabled(bool enabled) = 0;
    virtual bool isEnabled() const = 0;
};

class Menu {
public:
    virtual ~Menu() = default;
    // A new item, not yet in the menu. No action: a label.
    virtual std::shared_ptr<MenuItem> makeItem(std::string title, std::optional<MenuAction> action,
                                               std::string keyEquivalent) = 0;
    virtual void addItem(std::shared_ptr<MenuItem> item) = 0;
    virtual void addSeparator() = 0;
    virtual void setAutoenablesItems(bool autoenables) = 0;
};

class StatusButton {
public:
    virtual ~StatusButton() = default;
    virtual void setTitle(std::string title) = 0;
    virtual void setFont(Font font) = 0;
    virtual void setToolTip(std::string toolTip) = 0;
    virtual void setAccessibilityLabel(std::string label) = 0;
};

class StatusItem {
public:
    virtual ~StatusItem() = default;
    // May be absent; then nothing of the title, font, tooltip or label can be shown.
    virtual StatusButton* button() = 0;
    virtual void setMenu(std::shared_ptr<Menu> menu) = 0;
};

class StatusBar {
public:
    static constexpr double variableLength = -1;

    virtual ~StatusBar() = default;
    virtual std::shared_ptr<StatusItem> statusItem(double length) = 0;
    virtual std::shared_ptr<Menu> makeMenu() = 0;
};

// ---- environment and folders -------------------------------------------------------------

class Environment {
public:
    virtual ~Environment() = default;
    // None when the variable is not set at all; an empty text when it is set but empty.
    virtual std::optional<std::string> variable(const std::string& name) const = 0;
    virtual EnvironmentVariables all() const = 0;
};

// Absolute paths without a trailing slash.
class Folders {
public:
    virtual ~Folders() = default;
    virtual std::optional<std::string> resourcesFolder() const = 0;
    virtual std::vector<std::string> applicationSupportFolders() const = 0;
    virtual std::string homeFolder() const = 0;
};

// Everything the launcher may use of the world; the program's entry or a test fills it.
struct Platform {
    MainThread& mainThread;
    Application& application;
    Processes& processes;
    FileSystem& files;
    Http& http;
    Json& json;
    Network& network;
    Opener& opener;
    Alerts& alerts;
    StatusBar& statusBar;
    Environment& environment;
    Folders& folders;
};

}  // namespace lm::platform
