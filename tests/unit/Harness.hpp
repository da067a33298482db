// A launcher on the fake platform, on a machine ready for a start: the service script is shipped,
// a Node.js 22.13 answers in 20 ms, Codex is installed, nothing holds the port.
#pragma once

#include <gtest/gtest.h>

#include "LanternmoorPro/Launcher.hpp"
#include "fake/FakePlatform.hpp"

namespace lm::test {

using namespace std::chrono_literals;
using fake::Fake;
using platform::HttpResult;
inline const std::string node = "/usr/bin/node", codex = "/home/ada/.local/bin/codex";

struct Harness {
    Harness() {
        fake.setDelegate(launcher);
        for (const auto& file : {*fake.resources + "/app/server.mjs", node, codex}) fake.files.try_emplace(file, 0755u);
        fake.set("PATH", "/usr/bin");
        fake.scripts[node + " --version"] = {.output = "v22.13.0\n", .exitAfter = 20ms};
        service() = {.exitAfter = std::nullopt};
    }
    ~Harness() { fake.runUntilIdle(); }  // whatever is under way runs to its end

    fake::Script& service() { return fake.scripts[node + " --experimental-strip-types"]; }
    // Nothing answers the first probe; the started service answers as ours.
    void serviceAnswers(const std::string& more = "") {
        fake.answers.push_back({HttpResult::failed()});
        fake.answers.push_back({Fake::ours(more)});
    }
    void at(std::chrono::milliseconds time, std::function<void(Harness&)> act) { fake.after(time, [this, act] { act(*this); }); }
    void launch() { launcher->applicationDidFinishLaunching(), fake.runUntilIdle(); }
    // The journal on one line, without the probes unless asked for.
    std::string journal(bool probes = false) const {
        std::string text;
        for (const auto& line : fake.journal)
            if (probes || line.find(" probe ") == std::string::npos) text += (text.empty() ? "" : "; ") + line;
        return text;
    }
    template <typename T>
    T await(platform::Task<T> task) {
        auto result = std::make_shared<std::optional<T>>();
        scope.spawn(fake, [](platform::Task<T> inner, auto out) -> platform::Task<> { out->emplace(co_await std::move(inner)); }(
                              std::move(task), result));
        fake.runUntilIdle();
        return std::move(result->value());
    }

    Fake fake;
    platform::Platform platform = fake.platform();
    std::shared_ptr<LanternmoorLauncher> launcher = std::make_shared<LanternmoorLauncher>(platform);
    platform::TaskScope scope;
};

// A table row: how the situation differs from the default, and the journal that follows.
struct Scenario {
    const char* name;
    std::function<void(Harness&)> arrange;
    std::string journal;
    bool launches = true;
    friend std::ostream& operator<<(std::ostream& out, const Scenario& row) { return out << row.name; }
};

}  // namespace lm::test
