// The launcher core: standard C++20 only. No Qt or POSIX header is included anywhere under
// LanternmoorPro/ outside platform/posix, platform/qt and platform/terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "LanternmoorPro/platform/Platform.hpp"
#include "LanternmoorPro/platform/Task.hpp"

namespace lm {

using platform::Error;
using platform::Task;

// A place on disk in both forms the launcher hands out: the path form (absolute, no scheme,
// no percent-encoding, no trailing slash) for everything that is text, the URL form only for
// opening things.
struct FileLocation {
    std::string path;
    bool isDirectory = false;

    FileLocation appending(const std::string& component, bool directory = false) const;
    std::string url() const;  // file:// URL, percent-encoded, a folder with a trailing slash
};

// The one application object. Every behaviour is a method; methods share state only through
// the fields below, which live on the main thread and are never locked.
class LanternmoorLauncher final : public platform::ApplicationDelegate,
                                  public platform::MenuTarget,
                                  public std::enable_shared_from_this<LanternmoorLauncher> {
public:
    enum class Health { ours, foreign, noResponse };
    // The verdict, and the process identifier the answer named, if it named one.
    struct HealthAnswer {
        Health health = Health::noResponse;
        std::optional<std::int64_t> processIdentifier;
    };

    static constexpr std::uint16_t defaultPort = 18765;

    // The port is fixed in the program; tests may give another one so they can run side by side.
    explicit LanternmoorLauncher(platform::Platform& platform, std::uint16_t port = defaultPort);
    ~LanternmoorLauncher() override = default;
    LanternmoorLauncher(const LanternmoorLauncher&) = delete;
    LanternmoorLauncher& operator=(const LanternmoorLauncher&) = delete;

    // ---- the application's calls ------------------------------------------------------------
    void applicationDidFinishLaunching() override;
    bool applicationShouldHandleReopen(bool hasVisibleWindows) override;
    void openFromMenu();
    void openGuide();
    void openData();
    void quitFromMenu();
    platform::TerminateReply applicationShouldTerminate() override;
    void applicationWillTerminate() override;
    void perform(platform::MenuAction action) override;

    // ---- start-or-connect, service launch, service exit and shutdown ----------------------
    Task<> startOrConnect();
    platform::Result<std::shared_ptr<platform::ChildProcess>> launchService(
        const std::string& nodePath, const std::string& codexPath, const FileLocation& appRoot,
        const FileLocation& dataFolder);
    void childExited(std::int32_t processIdentifier);
    Task<> stopOwnedChild();

    // ---- probes ------------------------------------------------------------------------------
    Task<Health> probeHealth();
    Task<HealthAnswer> probeHealthAnswer();
    bool portAcceptsConnections();

    // ---- prerequisites -----------------------------------------------------------------------
    Task<std::optional<std::string>> findNode();
    Task<bool> supportedNode(std::string candidate);
    std::optional<std::string> findCodex();

    // ---- locations and the run log ------------------------------------------------------------
    std::string workspaceURL() const;
    std::optional<FileLocation> resourcesFolder() const;
    std::optional<FileLocation> applicationSupportFolder() const;
    std::optional<FileLocation> appRoot() const;
    std::optional<FileLocation> dataFolderURL() const;
    std::optional<FileLocation> logURL() const;
    std::string homeFolderPath() const;
    platform::Result<std::shared_ptr<platform::FileHandle>> prepareLog(const FileLocation& folder);

    // ---- the user's surface -----------------------------------------------------------------
    void installMenu();
    void showPrerequisite(std::string title, std::string message);
    void showFailure(std::string title, std::string message);
    void showOccupiedPort();
    void openBrowser();
    Task<> openWorkspace();

    // ---- state, in declaration order; main thread only ------------------------------------------
    const std::uint16_t port;
    const std::string appID = "lanternmoor-local-pro";
    std::shared_ptr<platform::StatusItem> statusItem;
    std::shared_ptr<platform::MenuItem> openItem;
    std::shared_ptr<platform::ChildProcess> ownedProcess;
    std::shared_ptr<platform::FileHandle> logHandle;
    bool ready = false;
    bool shuttingDown = false;          // only ever goes from false to true
    bool failurePresented = false;      // only ever goes from false to true

private:
    void spawn(Task<> task);
    void setToolTip(std::string_view text);
    std::string searchPath() const;
    std::string logPath() const;
    Task<> stopAndReply();
    bool claimTheOneAlert();

    platform::Platform& platform_;
    // Last, so that tasks still suspended go before the fields their frames refer to.
    platform::TaskScope tasks_;
};

// The process entry once the platform is chosen: the launcher, the delegate and the event loop.
// Returns the exit status.
int runLauncher(platform::Platform& platform);

// Numbers of a `node --version` output, and the gate they must pass.
std::vector<std::int64_t> versionNumbers(std::string_view output);
bool versionPasses(const std::vector<std::int64_t>& numbers);

// The search path's entries: split at ":", empty ones dropped, nothing else touched.
std::vector<std::string> searchPathEntries(std::string_view searchPath);

// The stamp that opens each start's part of the run log, for a given time.
std::string logStamp(std::chrono::system_clock::time_point now);

}  // namespace lm
