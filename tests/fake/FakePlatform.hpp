// The fake platform: single-threaded, virtual clock, scripted answers, recorded effects.
// Each part can be used on its own (integration tests borrow some beside real ones).
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/ApplicationBase.hpp"
#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::fake {

using namespace std::chrono_literals;
using platform::Error;
using platform::Failure;

// One ordered record of the effects every fake part had, so a test can assert order
// across parts ("guide opened, then termination requested").
using Journal = std::vector<std::string>;

struct Journaled {
    Journal* journal = nullptr;
    void note(std::string entry) const { if (journal) journal->push_back(std::move(entry)); }
};

struct FakeMainThread final : platform::MainThread {
    using TimePoint = std::chrono::system_clock::time_point;
    void post(std::function<void()> task) override { ready_.push_back(std::move(task)); }
    // Timers due at the same time run in the order they were set.
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> task) override {
        timers_.emplace(now_ + delay, std::move(task));
    }
    TimePoint now() const override { return now_; }
    // Runs posted tasks, moving virtual time on to the next timer whenever nothing else is
    // left, until nothing is left at all or `limit` of virtual time has passed.
    void runUntilIdle(std::chrono::nanoseconds limit = 1h) { runUntil(now_ + limit); }
    // Runs everything due within `duration` of virtual time, then stops the clock there.
    void runFor(std::chrono::nanoseconds duration) { now_ = runUntil(now_ + duration); }
    // Runs what is runnable now, without moving the clock.
    void runReady();
    bool isOnMainThread() const { return running_; }

private:
    TimePoint runUntil(TimePoint end);
    TimePoint now_ = std::chrono::sys_days{std::chrono::November / 23 / 2026};
    std::deque<std::function<void()>> ready_;
    std::multimap<TimePoint, std::function<void()>> timers_;
    bool running_ = false;
};

struct FakeApplication final : platform::ApplicationBase, Journaled {
    explicit FakeApplication(Journal* journal = nullptr) : Journaled{journal} {}
    void setActivationPolicy(platform::ActivationPolicy policy) override { activationPolicy = policy; }
    int run() override { note("launched"); finishLaunching(); return 0; }
    void terminate() override { ++terminateRequests; note("terminate"); ApplicationBase::terminate(); }
    void replyToApplicationShouldTerminate(bool yes) override {
        note(yes ? "reply yes" : "reply no");
        ApplicationBase::replyToApplicationShouldTerminate(yes);
    }
    void activateIgnoringOtherApps() override { ++activations; }

    std::optional<platform::ActivationPolicy> activationPolicy;
    int terminateRequests = 0;
    int activations = 0;

protected:
    void endEventLoop() override { note("ended"); }
};

struct ScriptedProcess {
    std::optional<Error> startError{};
    std::string output{};  // what it prints on standard output
    int exitStatus = 0;
    // When it ends by itself; none: it runs until it is signalled.
    std::optional<std::chrono::nanoseconds> exitAfter = 0ns;
    bool ignoresTerminate = false;
};

class FakeProcesses;

struct FakeChildProcess final : platform::ChildProcess, std::enable_shared_from_this<FakeChildProcess> {
    FakeChildProcess(FakeProcesses& owner, platform::ProcessConfiguration configuration, ScriptedProcess script,
                     std::int32_t pid)
        : configuration(std::move(configuration)), owner_(owner), script_(std::move(script)), pid_(pid) {}
    void setTerminationHandler(platform::TerminationHandler handler) override { handler_ = std::move(handler); }
    Failure start() override;
    bool isRunning() const override { return running_; }
    std::int32_t processIdentifier() const override { return started_ ? pid_ : 0; }
    bool includes(std::int64_t pid) const override { return started_ && (pid == pid_ || group.contains(pid)); }
    int terminationStatus() const override { return status_; }
    std::string capturedOutput() const override { return started_ && !running_ ? script_.output : std::string(); }
    void terminate() override;
    void kill() override;
    // Ends the process now, as if it had exited by itself.
    void exit(int status);

    const platform::ProcessConfiguration configuration;
    std::set<std::int64_t> group;  // processes it started

private:
    void exitAfter(std::chrono::nanoseconds delay, int status);

    FakeProcesses& owner_;
    ScriptedProcess script_;
    std::int32_t pid_;
    platform::TerminationHandler handler_;
    bool started_ = false, running_ = false;
    int status_ = 0;
};

struct FakeProcesses final : platform::Processes, Journaled {
    explicit FakeProcesses(FakeMainThread* mainThread = nullptr, Journal* journal = nullptr)
        : Journaled{journal}, mainThread(mainThread) {}
    std::shared_ptr<platform::ChildProcess> create(platform::ProcessConfiguration configuration) override;
    // Started and not yet ended.
    int running() const;

    FakeMainThread* mainThread;
    // What a program does when started, by "executable firstArgument" or by executable alone;
    // unscripted ones cannot start.
    std::map<std::string, ScriptedProcess> scripts;
    std::vector<std::shared_ptr<FakeChildProcess>> created;
    std::int32_t nextPid = 4000;
};

struct FakeFileSystem final : platform::FileSystem {
    bool fileExists(const std::string& path) const override { return nodes.contains(path); }
    bool isExecutableFile(const std::string& path) const override;
    Failure createDirectories(const std::string& path, unsigned mode) override;
    Failure setMode(const std::string& path, unsigned mode) override;
    Failure createFile(const std::string& path, unsigned mode) override;
    platform::Result<std::shared_ptr<platform::FileHandle>> openForWriting(const std::string& path) override;

    void addFile(const std::string& path, std::string content = {}, unsigned mode = 0644);
    void addExecutable(const std::string& path) { addFile(path, {}, 0755); }
    Failure failing(const std::string& operation) const;

    struct Node { bool isDirectory = false; unsigned mode = 0644; std::string content; };
    std::map<std::string, Node> nodes;
    // An operation named here ("createDirectories", "setMode", "createFile", "open", "seek",
    // "write", "close") fails with that error.
    std::map<std::string, Error> failures;
    int openHandles = 0;
};

struct FakeHttp final : platform::Http {
    explicit FakeHttp(FakeMainThread* mainThread = nullptr) : mainThread_(mainThread) {}
    void get(const platform::HttpRequest& request, std::function<void(platform::HttpResult)> done) override;

    struct Answer { platform::HttpResult result; std::chrono::nanoseconds delay = 0ns; };
    // Answers given in order; once used up, `fallback` answers every request.
    std::deque<Answer> answers;
    std::optional<Answer> fallback = Answer{platform::HttpResult::failed()};
    // Requests nobody answered yet (answers and fallback both absent): complete them by hand.
    std::vector<std::function<void(platform::HttpResult)>> held;
    std::vector<platform::HttpRequest> requests;

    static platform::HttpResult ours() { return platform::HttpResult::reply(200, R"({"appId":"lanternmoor-local-pro"})"); }
    static platform::HttpResult other() { return platform::HttpResult::reply(200, R"({"appId":"someone-else"})"); }

private:
    FakeMainThread* mainThread_;
};

// Understands exactly the flat objects of string members the tests send.
struct FakeJson final : platform::Json {
    std::optional<std::string> stringMemberOfObject(std::string_view text, std::string_view key) const override;
    std::optional<std::int64_t> integerMemberOfObject(std::string_view text, std::string_view key) const override;
};

struct FakeNetwork final : platform::Network {
    bool loopbackAcceptsConnections(std::uint16_t port) override { checks.push_back(port); return accepting; }
    bool accepting = false;
    std::vector<std::uint16_t> checks;
};

struct FakeOpener final : platform::Opener, Journaled {
    explicit FakeOpener(Journal* journal = nullptr) : Journaled{journal} {}
    bool open(const std::string& url) override { opened.push_back(url); note("open " + url); return succeeds; }
    bool succeeds = true;
    std::vector<std::string> opened;
};

struct FakeAlerts final : platform::Alerts, Journaled {
    explicit FakeAlerts(Journal* journal = nullptr) : Journaled{journal} {}
    int runModal(const platform::Alert& alert) override;

    std::vector<platform::Alert> shown;
    // Buttons pressed in order (0 = first); once used up, the first button.
    std::deque<int> answers;
    // Runs while the alert is up, as events would inside the modal loop.
    std::function<void()> whileShown;
};

struct FakeMenuItem final : platform::MenuItem {
    FakeMenuItem(bool separator, std::string title = {}, std::optional<platform::MenuAction> action = {},
                 std::string keyEquivalent = {})
        : separator(separator), title(std::move(title)), action(action), keyEquivalent(std::move(keyEquivalent)) {}
    void setTarget(std::weak_ptr<platform::MenuTarget> newTarget) override { target = std::move(newTarget); }
    void setEnabled(bool value) override { enabled = value; }
    bool isEnabled() const override { return enabled; }
    // What a click does: the action on the target, only when enabled.
    void click() { if (auto receiver = target.lock(); receiver && enabled && action) receiver->perform(*action); }

    bool separator;
    std::string title;
    std::optional<platform::MenuAction> action;
    std::string keyEquivalent;
    std::weak_ptr<platform::MenuTarget> target;
    bool enabled = true;
};

struct FakeMenu final : platform::Menu {
    std::shared_ptr<platform::MenuItem> makeItem(std::string title, std::optional<platform::MenuAction> action,
                                                 std::string keyEquivalent) override {
        return std::make_shared<FakeMenuItem>(false, std::move(title), action, std::move(keyEquivalent));
    }
    void addItem(std::shared_ptr<platform::MenuItem> item) override {
        items.push_back(std::dynamic_pointer_cast<FakeMenuItem>(item));
    }
    void addSeparator() override { items.push_back(std::make_shared<FakeMenuItem>(true)); }
    void setAutoenablesItems(bool value) override { autoenablesItems = value; }

    std::vector<std::shared_ptr<FakeMenuItem>> items;  // separators included
    bool autoenablesItems = true;
};

struct FakeStatusButton final : platform::StatusButton {
    void setTitle(std::string value) override { title = std::move(value); }
    void setFont(platform::Font value) override { font = value; }
    void setToolTip(std::string value) override { toolTips.push_back(std::move(value)); }
    void setAccessibilityLabel(std::string value) override { accessibilityLabel = std::move(value); }
    std::string toolTip() const { return toolTips.empty() ? std::string() : toolTips.back(); }

    std::string title, accessibilityLabel;
    std::optional<platform::Font> font;
    std::vector<std::string> toolTips;
};

struct FakeStatusItem final : platform::StatusItem {
    FakeStatusItem(double length, bool withButton) : length(length), hasButton(withButton) {}
    platform::StatusButton* button() override { return hasButton ? &fakeButton : nullptr; }
    void setMenu(std::shared_ptr<platform::Menu> value) override { menu = std::dynamic_pointer_cast<FakeMenu>(value); }

    double length;
    bool hasButton;
    FakeStatusButton fakeButton;
    std::shared_ptr<FakeMenu> menu;
};

struct FakeStatusBar final : platform::StatusBar {
    std::shared_ptr<platform::StatusItem> statusItem(double length) override {
        return items.emplace_back(std::make_shared<FakeStatusItem>(length, itemsHaveButtons));
    }
    std::shared_ptr<platform::Menu> makeMenu() override { return std::make_shared<FakeMenu>(); }

    bool itemsHaveButtons = true;
    std::vector<std::shared_ptr<FakeStatusItem>> items;
};

struct FakeEnvironment final : platform::Environment {
    std::optional<std::string> variable(const std::string& name) const override;
    platform::EnvironmentVariables all() const override { return variables; }
    void set(const std::string& name, const std::string& value);
    void unset(const std::string& name) { std::erase_if(variables, [&](auto& entry) { return entry.first == name; }); }

    platform::EnvironmentVariables variables;
};

struct FakeFolders final : platform::Folders {
    std::optional<std::string> resourcesFolder() const override { return resources; }
    std::vector<std::string> applicationSupportFolders() const override { return applicationSupport; }
    std::string homeFolder() const override { return home; }

    std::optional<std::string> resources = "/opt/lanternmoor/share/lanternmoor-pro";
    std::vector<std::string> applicationSupport{"/home/ada/.local/share"};
    std::string home = "/home/ada";
};

// Every part, wired to one clock and one journal.
struct FakePlatform {
    Journal journal;
    FakeMainThread mainThread;
    FakeApplication application{&journal};
    // Before the processes: their configurations hold handles on its files.
    FakeFileSystem files;
    FakeProcesses processes{&mainThread, &journal};
    FakeHttp http{&mainThread};
    FakeJson json;
    FakeNetwork network;
    FakeOpener opener{&journal};
    FakeAlerts alerts{&journal};
    FakeStatusBar statusBar;
    FakeEnvironment environment;
    FakeFolders folders;

    platform::Platform platform() {
        return {mainThread, application, processes, files, http, json, network,
                opener, alerts, statusBar, environment, folders};
    }
};

}  // namespace lm::fake
