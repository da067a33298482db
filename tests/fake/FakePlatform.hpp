// The fake platform: one single-threaded world with a virtual clock, scripted answers, and one
// journal of every effect stamped with the virtual second it happened at ("3.000 SIGKILL 4001").
// Signals are journaled even when they reach a child that has ended, so a test can tell that none
// was sent.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <set>

#include "LanternmoorPro/platform/ApplicationBase.hpp"
#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::fake {

using namespace std::chrono_literals;
using namespace lm::platform;
using Time = std::chrono::system_clock::time_point;

// The clock, the main thread's queues, the journal and the files every part shares.
struct World {
    std::vector<std::string> journal;
    Time start = std::chrono::sys_days{std::chrono::November / 23 / 2026}, clock = start;
    std::deque<std::function<void()>> ready;
    std::multimap<Time, std::pair<MainThread::TimerId, std::function<void()>>> timers;
    MainThread::TimerId lastTimer = 0;
    bool onMainThread = false;
    std::map<std::string, unsigned> files;  // path: mode

    void note(const std::string& what) {
        const auto ms = (clock - start) / 1ms;
        journal.push_back(std::to_string(ms / 1000) + "." + std::to_string(1000 + ms % 1000).substr(1) + " " + what);
    }
    MainThread::TimerId after(std::chrono::nanoseconds delay, std::function<void()> task) {
        // Rounded up to the clock's own tick (a microsecond with libc++): never early.
        return timers.emplace(clock + std::chrono::ceil<Time::duration>(delay), std::pair(++lastTimer, std::move(task)))->second.first;
    }
    // Runs what is due, moving the clock on to the next timer whenever nothing else is left.
    void runUntilIdle() {
        for (;;) {
            for (; !ready.empty(); onMainThread = false) {
                auto task = std::move(ready.front());
                ready.pop_front();
                onMainThread = true;
                task();
            }
            if (timers.empty()) return;
            clock = std::max(clock, timers.begin()->first);
            ready.push_back(std::move(timers.begin()->second.second));
            timers.erase(timers.begin());
        }
    }
};

// What a program does when it is started.
struct Script {
    std::optional<Error> startError{};
    std::string output{};
    int status = 0;
    std::optional<std::chrono::nanoseconds> exitAfter = 0ns;  // none: it runs until it is signalled
    bool deafToSigterm = false;
    std::set<std::int64_t> group{};  // the processes it started
};

struct Child final : ChildProcess, std::enable_shared_from_this<Child> {
    Child(World& world, ProcessConfiguration configuration, Script script, std::int32_t pid)
        : world(world), configuration(std::move(configuration)), script(std::move(script)), pid(pid) {}
    void setTerminationHandler(TerminationHandler value) override { handler = std::move(value); }
    Failure start() override {
        if (script.startError) return *script.startError;
        started = running = true;
        world.note("start " + configuration.executable + (configuration.arguments.empty() ? "" : " " + configuration.arguments[0]));
        if (script.exitAfter) exitAfter(*script.exitAfter, script.status);
        return std::nullopt;
    }
    bool isRunning() const override { return running; }
    std::int32_t processIdentifier() const override { return started ? pid : 0; }
    bool includes(std::int64_t id) const override { return started && (id == pid || script.group.contains(id)); }
    int terminationStatus() const override { return status; }
    std::string capturedOutput() const override { return running ? "" : script.output; }
    void terminate() override {
        world.note("SIGTERM " + std::to_string(pid));
        if (running && !script.deafToSigterm) exitAfter(0ns, 143);
    }
    void kill() override { world.note("SIGKILL " + std::to_string(pid)), exit(137); }
    void exitAfter(std::chrono::nanoseconds delay, int code) {
        world.after(delay, [self = weak_from_this(), code] { if (auto child = self.lock()) child->exit(code); });
    }
    void exit(int code) {
        if (!std::exchange(running, false)) return;
        world.note("exit " + std::to_string(pid) + " " + std::to_string(status = code));
        if (handler) handler(pid);
    }

    World& world;
    const ProcessConfiguration configuration;
    Script script;
    std::int32_t pid, status = 0;
    TerminationHandler handler;
    bool started = false, running = false;
};

// Entries start enabled, as real ones do; every change is journaled. What the entries do, the real
// menus show.
struct Item final : MenuItem {
    Item(World& world, std::string title) : world(world), title(std::move(title)) {}
    void setTarget(std::weak_ptr<MenuTarget>) override {}
    void setEnabled(bool value) override {
        if (value != std::exchange(enabled, value)) world.note((value ? "enable " : "disable ") + title);
    }

    World& world;
    std::string title;
    bool enabled = true;
};

struct Handle final : FileHandle {
    Handle(World& world, std::string path) : world(world), path(std::move(path)) {}
    Failure write(std::string_view) override { return std::nullopt; }
    Failure close() override {
        if (std::exchange(open, false)) world.note("close " + path.substr(path.rfind('/') + 1));
        return std::nullopt;
    }
    World& world;
    std::string path;
    bool open = true;
};

struct Fake : World, MainThread, ApplicationBase, Processes, FileSystem, Http, Json, Network, Opener, Alerts, StatusBar, StatusItem,
              Menu, StatusButton, Environment, Folders {
    Platform platform() { return {*this, *this, *this, *this, *this, *this, *this, *this, *this, *this, *this, *this}; }

    // ---- the main thread and the application ----
    void post(std::function<void()> task) override { ready.push_back(std::move(task)); }
    TimerId postAfter(std::chrono::nanoseconds delay, std::function<void()> task) override { return after(delay, std::move(task)); }
    void cancel(TimerId timer) override { std::erase_if(timers, [timer](const auto& entry) { return entry.second.first == timer; }); }
    Time now() const override { return clock; }
    int run() override { return finishLaunching(), 0; }
    void terminate() override { note("terminate"), ApplicationBase::terminate(); }
    void replyToApplicationShouldTerminate(bool yes) override {
        if (!hasEnded()) note("reply yes");  // after the end, the real process is gone
        ApplicationBase::replyToApplicationShouldTerminate(yes);
    }
    void activateIgnoringOtherApps() override {}
    void endEventLoop() override { note("ended"); }

    // ---- processes, scripted by "program firstArgument" or by program; unscripted ones fail ----
    std::map<std::string, Script> scripts;
    std::vector<std::shared_ptr<Child>> children;
    std::shared_ptr<ChildProcess> create(ProcessConfiguration configuration) override {
        const auto& arguments = configuration.arguments;
        auto found = scripts.find(configuration.executable + (arguments.empty() ? "" : " " + arguments.front()));
        if (found == scripts.end()) found = scripts.find(configuration.executable);
        auto script = found != scripts.end() ? found->second : Script{.startError = Error{"POSIX", 2, "没有这个程序。", "posix_spawn", 2}};
        return children.emplace_back(std::make_shared<Child>(*this, std::move(configuration), script, 4000 + std::ssize(children)));
    }

    // ---- files: creating the log fails with `logFailure` when it is set ----
    std::optional<Error> logFailure;
    bool fileExists(const std::string& path) const override { return files.contains(path); }
    bool isExecutableFile(const std::string& path) const override { return files.contains(path) && (files.at(path) & 0111); }
    Failure createDirectories(const std::string& path, unsigned mode) override {
        for (auto folder = path; !folder.empty(); folder = folder.substr(0, folder.rfind('/'))) files.try_emplace(folder, mode);
        return std::nullopt;
    }
    Failure setMode(const std::string& path, unsigned mode) override { return files.at(path) = mode, std::nullopt; }
    Failure createFile(const std::string& path, unsigned mode) override {
        return logFailure ? Failure(*logFailure) : (files.try_emplace(path, mode), Failure());
    }
    Result<std::shared_ptr<FileHandle>> openForWriting(const std::string& path) override {
        return std::shared_ptr<FileHandle>(std::make_shared<Handle>(*this, path));
    }

    // ---- the network: HTTP answers in order, then `fallback` for every request, within its limit ----
    struct Answer {
        HttpResult result;
        std::chrono::nanoseconds delay = 0ns;
    };
    std::deque<Answer> answers;
    Answer fallback{HttpResult::failed()};
    bool accepting = false;
    void get(const HttpRequest& request, std::function<void(HttpResult)> done) override {
        auto [result, delay] = answers.empty() ? fallback : answers.front();
        if (note("probe " + request.url), !answers.empty()) answers.pop_front();
        // The real client gives up at the exchange's limit: a later answer is none.
        if (delay > request.totalTimeout) result = HttpResult::failed(), delay = request.totalTimeout;
        after(delay, [done = std::move(done), result = result] { done(result); });
    }
    bool loopbackAcceptsConnections(std::uint16_t port) override { return note("port check " + std::to_string(port)), accepting; }
    static HttpResult ours(const std::string& more = "") { return HttpResult::reply(200, R"({"appId":"lanternmoor-local-pro")" + more + "}"); }
    // Flat objects of string and whole-number members are all the tests send.
    std::optional<std::string> stringMemberOfObject(std::string_view text, std::string_view key) const override {
        auto value = member(text, key);
        return value && value->starts_with('"') ? std::optional(value->substr(1, value->size() - 2)) : std::nullopt;
    }
    std::optional<std::int64_t> integerMemberOfObject(std::string_view text, std::string_view key) const override {
        auto value = member(text, key);
        return value && !value->starts_with('"') ? std::optional(std::stoll(*value)) : std::nullopt;
    }
    static std::optional<std::string> member(std::string_view text, std::string_view key) {
        const auto at = text.find(std::string("\"").append(key).append("\":"));
        if (!text.starts_with('{') || at == text.npos) return std::nullopt;
        return std::string(text.substr(at + key.size() + 3, text.find_first_of(",}", at) - at - key.size() - 3));
    }

    // ---- the user's surface ----
    bool opens = true;
    std::size_t answer = 0;  // the button pressed, from 0
    std::vector<Alert> shown;
    std::function<void()> whileShown;  // runs while the alert is up, as events would
    bool open(const std::string& url) override { return note("open " + url), opens; }
    std::size_t runModal(const Alert& alert) override {
        shown.push_back(alert), note("alert " + alert.title);
        if (auto during = std::exchange(whileShown, nullptr)) during();
        return answer;
    }
    std::shared_ptr<StatusItem> statusItem() override { return {std::shared_ptr<void>(), this}; }
    StatusButton* button() override { return this; }
    Menu& menu() override { return note("menu"), *this; }
    std::shared_ptr<MenuItem> addItem(std::string title, std::optional<MenuAction>, std::string) override {
        return std::make_shared<Item>(*this, std::move(title));
    }
    void addSeparator() override {}
    void setTitle(std::string) override {}
    void setToolTip(std::string value) override { note("tooltip " + value); }
    void setAccessibilityLabel(std::string) override {}

    // ---- the environment and the folders ----
    EnvironmentVariables variables;
    std::optional<std::string> resources = "/opt/lm/share/lanternmoor-pro";
    std::vector<std::string> applicationSupport{"/home/ada/.local/share"};
    std::optional<std::string> variable(const std::string& name) const override {
        auto found = std::find_if(variables.begin(), variables.end(), [&](const auto& entry) { return entry.first == name; });
        return found == variables.end() ? std::nullopt : std::optional(found->second);
    }
    EnvironmentVariables all() const override { return variables; }
    void set(const std::string& name, const std::optional<std::string>& value) {
        if (std::erase_if(variables, [&](auto& entry) { return entry.first == name; }), value) variables.emplace_back(name, *value);
    }
    std::optional<std::string> resourcesFolder() const override { return resources; }
    std::vector<std::string> applicationSupportFolders() const override { return applicationSupport; }
    std::string homeFolder() const override { return "/home/ada"; }
};

}  // namespace lm::fake
