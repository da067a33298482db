// Node.js discovery against real executables: scripts that answer --version in every wrong
// way, a real Node.js 22 ($LM_TEST_NODE) and whatever /usr/bin/node is.
#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "integration/ChildProcessSupport.hpp"
#include "integration/ProbeHarness.hpp"

namespace lm::testing {
namespace {

class NodeDiscovery : public ::testing::Test {
protected:
    void SetUp() override {
        // Asked before any PATH entry; a Node.js there would answer first.
        for (const auto* fixed : {"/opt/homebrew/bin/node", "/usr/local/bin/node"}) {
            if (std::filesystem::exists(fixed)) GTEST_SKIP() << fixed << " exists on this machine";
        }
    }

    std::optional<std::string> findNode(const std::string& searchPath) {
        world.environment.set("PATH", searchPath);
        auto outcome = runToEnd(world.mainThread, world.launcher->findNode(), 20s);
        EXPECT_TRUE(outcome->value) << "the search did not end";
        return outcome->value.value_or(std::nullopt);
    }

    TemporaryFolder folder;
    LocalPlatform world;
};

TEST_F(NodeDiscovery, theFirstSupportedCandidateWinsAfterEveryRejectedOneIsPassedOverAndEnded) {
    std::string searchPath;
    for (auto [name, body, mode] : std::vector<std::tuple<std::string, std::string, unsigned>>{
             {"hung", "exec sleep 1000", 0755},
             {"stderr", "echo v22.13.0 >&2", 0755},
             {"failing", "echo v22.13.0; exit 1", 0755},
             {"killed", "echo v22.13.0; kill -KILL $$", 0755},
             {"chatty", "yes v22.13.0 | head -c 20000000", 0755},
             {"locked", "echo v22.13.0", 0644},
             {"old", "echo v22.12.1", 0755},
             {"good", "echo v22.13.0", 0755},
             {"later", "echo v24.0.0", 0755}}) {
        // Each notes its process identifier, to tell afterwards that nothing is left running.
        writeFile(folder / (name + "/node"), "#!/bin/sh\necho $$ >> '" + folder / "started'\n" + body, mode);
        searchPath += folder / name + ":";
    }
    auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(findNode(searchPath), folder / "good/node");
    // Only the hung one may take the whole time limit.
    EXPECT_GT(std::chrono::steady_clock::now() - began, 4s);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 8s);

    std::istringstream lines(readFile(folder / "started"));
    std::vector<pid_t> started{std::istream_iterator<pid_t>(lines), {}};
    // The locked one is never started and the one after the winner is never asked.
    EXPECT_EQ(started.size(), 7u);
    for (auto identifier : started) EXPECT_TRUE(eventually([&] { return isGone(identifier); }, 2s)) << identifier;
}

TEST_F(NodeDiscovery, aRealNode22IsFoundAndTheSystemsOlderNodeIsPassedOver) {
    const char* testNode = std::getenv("LM_TEST_NODE");
    if (testNode == nullptr || *testNode == '\0') GTEST_SKIP() << "LM_TEST_NODE is not set";
    if (std::system("/usr/bin/node --version 2>&1 | grep -qE '^v(2[2-9]|[3-9][0-9])'") == 0) {
        GTEST_SKIP() << "/usr/bin/node would answer first";
    }
    // A folder of its own, so the candidate is named node whatever the real file is called.
    std::filesystem::create_directory(folder / "real");
    std::filesystem::create_symlink(testNode, folder / "real/node");

    auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(findNode("/usr/bin:" + folder / "real"), folder / "real/node");
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    EXPECT_EQ(findNode("/usr/bin"), std::nullopt);
}

}  // namespace
}  // namespace lm::testing
