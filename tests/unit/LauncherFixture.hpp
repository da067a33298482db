#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"
#include "fake/FakePlatform.hpp"

namespace lm::test {

using namespace std::chrono_literals;
using Health = LanternmoorLauncher::Health;
using fake::FakeHttp;
using platform::HttpResult;
using Strings = std::vector<std::string>;

inline constexpr const char* resources = "/opt/lm/share/lanternmoor-pro";
inline constexpr const char* serviceScript = "/opt/lm/share/lanternmoor-pro/app/server.mjs";
inline constexpr const char* node = "/usr/bin/node";
inline constexpr const char* codex = "/home/ada/.local/bin/codex";
inline constexpr const char* logFile = "/home/ada/.local/share/Lanternmoor Pro/server.log";
inline constexpr const char* workspace = "http://127.0.0.1:18765/";

// A launcher on the fake platform. By default the machine is ready for a start: the service
// script is shipped, a Node.js 22.13 and Codex are installed, nothing holds the port.
struct Harness {
    Harness() {
        fake.application.setDelegate(launcher);
        fake.folders.resources = resources;
        fake.files.addFile(serviceScript);
        fake.environment.set("PATH", "/usr/bin");
        fake.environment.set("LANG", "zh_CN.UTF-8");
        fake.files.addExecutable(node);
        fake.files.addExecutable(codex);
        nodeVersion() = {.output = "v22.13.0\n", .exitAfter = 20ms};
        serviceProcess() = {.exitAfter = std::nullopt};
    }
    // Whatever a test left under way runs to its end in virtual time, so no task is left
    // suspended when the fakes go.
    ~Harness() { fake.mainThread.runUntilIdle(); }
    Harness(const Harness&) = delete;

    fake::ScriptedProcess& nodeVersion() { return fake.processes.scripts[std::string(node) + " --version"]; }
    fake::ScriptedProcess& serviceProcess() {
        return fake.processes.scripts[std::string(node) + " --experimental-strip-types"];
    }
    void setPath(const std::optional<std::string>& path) {
        path ? fake.environment.set("PATH", *path) : fake.environment.unset("PATH");
    }
    // Nothing answers the first probe; the started service answers after `failures` more.
    void serviceAnswersAfter(int failures) {
        for (int i = 0; i <= failures; ++i) fake.http.answers.push_back({HttpResult::failed()});
        fake.http.answers.push_back({FakeHttp::ours()});
    }
    // The whole start: launching finished, then everything that follows in virtual time.
    void launch() {
        launcher->applicationDidFinishLaunching();
        fake.mainThread.runUntilIdle();
    }
    template <typename T>
    T await(Task<T> task) {
        std::optional<T> result;
        scope.spawn(fake.mainThread, store(std::move(task), result));
        fake.mainThread.runUntilIdle();
        EXPECT_TRUE(result.has_value()) << "the task did not finish";
        return std::move(*result);
    }
    void await(Task<> task) { await(finished(std::move(task))); }

    Strings alertTitles() const {
        Strings titles;
        for (auto& alert : fake.alerts.shown) titles.push_back(alert.title);
        return titles;
    }
    const platform::Alert& alert() const { return fake.alerts.shown.at(0); }
    std::shared_ptr<fake::FakeChildProcess> service() const {
        for (auto& child : fake.processes.created)
            if (!child->configuration.arguments.empty() && child->configuration.arguments[0] != "--version") return child;
        return nullptr;
    }
    std::string pid() const { return std::to_string(service()->processIdentifier()); }
    long journalIndex(const std::string& entry) const {
        auto found = std::ranges::find(fake.journal, entry);
        return found == fake.journal.end() ? -1 : found - fake.journal.begin();
    }
    bool journalHas(const std::string& entry) const { return journalIndex(entry) >= 0; }
    fake::FakeStatusButton& button() { return fake.statusBar.items.at(0)->fakeButton; }
    fake::FakeMenu& menu() { return *fake.statusBar.items.at(0)->menu; }

    fake::FakePlatform fake;
    platform::TaskScope scope;
    platform::Platform platform = fake.platform();
    std::shared_ptr<LanternmoorLauncher> launcher = std::make_shared<LanternmoorLauncher>(platform);

    template <typename T>
    static Task<> store(Task<T> task, std::optional<T>& result) {
        auto value = co_await std::move(task);
        result.emplace(std::move(value));
    }
    static Task<bool> finished(Task<> task) {
        co_await std::move(task);
        co_return true;
    }
};

class LauncherTest : public testing::Test, public Harness {};

}  // namespace lm::test
