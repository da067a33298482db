// Node.js discovery against real executables: scripts that answer --version in every wrong
// way, a real Node.js 22 from the npm registry ($LM_TEST_NODE) and whatever /usr/bin/node is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "fake/FakePlatform.hpp"
#include "integration/ChildProcessSupport.hpp"
#include "integration/ProbeHarness.hpp"

namespace lm::testing {
namespace {

using Clock = std::chrono::steady_clock;

// The launcher on real processes, files and main thread; the environment is the fake one so
// a test sets PATH without touching its own.
struct DiscoveryPlatform {
    platform::qt::QtMainThread mainThread;
    // After the main thread, so it goes first and no late report is posted to a gone loop.
    platform::posix::PosixProcesses processes;
    platform::posix::PosixFileSystem files;
    fake::FakeEnvironment environment;
    fake::FakeApplication application;
    fake::FakeHttp http;
    fake::FakeJson json;
    fake::FakeNetwork network;
    fake::FakeOpener opener;
    fake::FakeAlerts alerts;
    fake::FakeStatusBar statusBar;
    fake::FakeFolders folders;
    platform::Platform platform{mainThread, application, processes, files,   http,        json,
                                network,    opener,      alerts,    statusBar, environment, folders};
};

// The first number of what a program prints for --version; none when it cannot be run.
std::optional<int> majorVersionOf(const std::string& program) {
    if (::access(program.c_str(), X_OK) != 0) return std::nullopt;
    auto* pipe = ::popen((program + " --version 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return std::nullopt;
    int major = 0;
    auto matched = std::fscanf(pipe, "v%d", &major);
    ::pclose(pipe);
    return matched == 1 ? std::optional(major) : std::nullopt;
}

class NodeDiscovery : public ::testing::Test {
protected:
    void SetUp() override {
        // Those two are asked before any PATH entry; a Node.js there would answer first.
        for (const auto* fixed : {"/opt/homebrew/bin/node", "/usr/local/bin/node"}) {
            if (std::filesystem::exists(fixed)) GTEST_SKIP() << fixed << " exists on this machine";
        }
    }

    // A candidate "node" in a folder of its own that notes its process identifier first, so
    // the test can tell afterwards that nothing it started is still there.
    std::string candidate(const std::string& name, const std::string& body, unsigned mode = 0755) {
        return writeScript(folder / (name + "/node"), "echo $$ >> '" + folder / "started" + "'\n" + body, mode);
    }

    static std::string folderOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

    std::optional<std::string> findNode(const std::string& searchPath) {
        world.environment.set("PATH", searchPath);
        auto outcome = runToEnd(world.mainThread, launcher->findNode(), std::chrono::seconds(20));
        EXPECT_TRUE(outcome->value.has_value()) << "the search did not end";
        return outcome->value.value_or(std::nullopt);
    }

    std::vector<pid_t> startedIdentifiers() const {
        std::istringstream lines(readFile(folder / "started"));
        std::vector<pid_t> identifiers;
        for (pid_t identifier = 0; lines >> identifier;) identifiers.push_back(identifier);
        return identifiers;
    }

    void expectNothingLeftRunning() const {
        for (auto identifier : startedIdentifiers()) {
            EXPECT_TRUE(eventually([&] { return isGone(identifier); }, 2s)) << "process " << identifier;
        }
    }

    TemporaryFolder folder;
    DiscoveryPlatform world;
    std::shared_ptr<LanternmoorLauncher> launcher = std::make_shared<LanternmoorLauncher>(world.platform);
};

TEST_F(NodeDiscovery, aCandidateThatNeverAnswersIsKilledAndTheSearchGoesOn) {
    auto hung = candidate("hung", "exec sleep 1000");
    auto good = candidate("good", "echo v23.1.0");
    auto began = Clock::now();
    auto found = findNode(folderOf(hung) + ":" + folderOf(good));
    auto took = Clock::now() - began;

    EXPECT_EQ(found, good);
    EXPECT_GT(took, 4s);
    EXPECT_LT(took, 8s);
    ASSERT_EQ(startedIdentifiers().size(), 2u);
    expectNothingLeftRunning();
}

TEST_F(NodeDiscovery, theFirstSupportedCandidateOnThePathWinsOverEveryRejectedOne) {
    std::vector<std::string> entries{
        folderOf(candidate("stderr", "echo v22.13.0 >&2")),
        folderOf(candidate("failing", "echo v22.13.0; exit 1")),
        folderOf(candidate("killed", "echo v22.13.0; kill -KILL $$")),
        folderOf(candidate("chatty", "yes v22.13.0 | head -c 20000000")),
        folderOf(candidate("locked", "echo v22.13.0", 0644)),
        folderOf(candidate("old", "echo v22.12.1")),
        folderOf(candidate("good", "echo v22.13.0")),
        folderOf(candidate("later", "echo v24.0.0")),
    };
    std::string searchPath;
    for (const auto& entry : entries) searchPath += entry + ":";

    auto began = Clock::now();
    EXPECT_EQ(findNode(searchPath), folder / "good/node");
    // Far inside the time limit: none of them may be taken for a candidate that hangs.
    EXPECT_LT(Clock::now() - began, 3s);
    // The locked one is never started and the one after the winner is never asked.
    EXPECT_EQ(startedIdentifiers().size(), 6u);
    expectNothingLeftRunning();
}

TEST_F(NodeDiscovery, aRealNode22IsFoundAndTheSystemsOlderNodeIsPassedOver) {
    const char* testNode = std::getenv("LM_TEST_NODE");
    if (testNode == nullptr || *testNode == '\0') GTEST_SKIP() << "LM_TEST_NODE is not set";
    if (majorVersionOf("/usr/bin/node").value_or(0) >= 22) GTEST_SKIP() << "/usr/bin/node would answer first";
    // A folder of its own, so the candidate is named node whatever the fixture's file is called.
    std::filesystem::create_directory(folder / "real");
    std::filesystem::create_symlink(testNode, folder / "real/node");

    auto began = Clock::now();
    EXPECT_EQ(findNode("/usr/bin:" + folder / "real"), folder / "real/node");
    EXPECT_LT(Clock::now() - began, 5s);
    EXPECT_EQ(findNode("/usr/bin"), std::nullopt);
}

}  // namespace
}  // namespace lm::testing
