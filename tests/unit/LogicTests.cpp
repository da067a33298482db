// The launcher's own rules: which Node.js and Codex it finds, how it starts the service, the places
// and the log it derives, and the runtime its tasks run on.
#include "Harness.hpp"

namespace lm::test {

using Strings = std::vector<std::string>;

TEST(VersionGate, ReadsWhatNodePrintsAndPassesOnly22Point13AndLater) {
    for (const auto& [output, passes] : std::vector<std::pair<std::string, bool>>{
             {"v22.13.0\n", true}, {"v22.12.1", false}, {"v23.0.0", true}, {"v100.0.0", true}, {"22.13.0", true},
             {"v22.13.0-rc.1", true}, {"v22", false}, {"", false}, {"node v22.13.0", false}, {"  \r\n v22..13.\t", true},
             {"vv2v2.1v3", true}, {"V22.13.0", false}, {"+22.+13", true}, {"22.+-13", false}, {"99999999999999999999.1.2", false},
             {"\xff" "22.13.0", false}})
        EXPECT_EQ(versionPasses(versionNumbers(output)), passes) << output;
}

TEST(NodeSearch, TriesTheFixedCandidatesThenTheSearchPathOnceEachAndTakesTheFirstThatPasses) {
    const std::string homebrew = "/opt/homebrew/bin/node", local = "/usr/local/bin/node";
    for (const auto& [path, tried, found] : std::vector<std::tuple<std::optional<std::string>, Strings, std::optional<std::string>>>{
             {std::nullopt, {homebrew, local, "/usr/bin/node", "/bin/node", "/usr/sbin/node", "/sbin/node"}, std::nullopt},
             {"", {homebrew, local}, std::nullopt},
             {"/opt/homebrew/bin:/usr/bin", {homebrew, local, "/usr/bin/node"}, std::nullopt},
             {"::/usr/local/bin/:rel:/good", {homebrew, local, "/usr/local/bin//node", "rel/node", "/good/node"}, "/good/node"}}) {
        Harness h;
        h.fake.files.clear();
        h.fake.scripts = {{"/good/node", {.output = "v24.0.0"}}};  // every other candidate fails to start
        for (const auto& candidate : tried) h.fake.files.try_emplace(candidate, 0755u);
        h.fake.set("PATH", path);
        EXPECT_EQ(h.await(h.launcher->findNode()), found);
        Strings started;
        for (const auto& child : h.fake.children) started.push_back(child->configuration.executable);
        EXPECT_EQ(started, tried);
    }
}

TEST(NodeSearch, RejectsWhatIsNoExecutableFailsHangsOrSaysTooMuch) {
    Harness h;
    h.fake.set("PATH", "/plain:/failed:/hung:/chatty:/good");
    h.fake.files = {{"/plain/node", 0644}, {"/failed/node", 0755}, {"/hung/node", 0755}, {"/chatty/node", 0755}, {"/good/node", 0755}};
    h.fake.scripts = {{"/failed/node", {.output = "v22.13.0", .status = 1}},
                      {"/hung/node", {.output = "v22.13.0", .exitAfter = std::nullopt}},
                      {"/chatty/node", {.output = "v22.13.0" + std::string(64 * 1024, ' ') + "!"}},
                      {"/good/node", {.output = "v22.13.0"}}};
    EXPECT_EQ(h.await(h.launcher->findNode()), "/good/node");
    EXPECT_EQ(h.journal(), "0.000 start /failed/node --version; 0.000 exit 4000 1; 0.000 start /hung/node --version; 5.000 SIGKILL 4001; "
                           "5.000 exit 4001 137; 5.000 start /chatty/node --version; 5.000 exit 4002 0; 5.000 start /good/node --version; "
                           "5.000 exit 4003 0");
}

TEST(CodexSearch, TakesTheFirstExecutableInItsFixedOrderThenTheSearchPathAsBuilt) {
    const std::string chatgpt = "/Applications/ChatGPT.app/Contents/Resources/codex-cli/CodexCLI.app/Contents/MacOS/codex";
    const std::string desktop = "/Applications/Codex.app/Contents/Resources/codex";
    for (const auto& [present, path, found] : std::vector<std::tuple<Strings, std::optional<std::string>, std::optional<std::string>>>{
             {{desktop, chatgpt, "/opt/homebrew/bin/codex"}, "/usr/bin", chatgpt}, {{desktop, "/opt/homebrew/bin/codex"}, "/usr/bin", desktop},
             {{"/usr/bin/codex"}, std::nullopt, "/usr/bin/codex"}, {{codex, "/usr/bin/codex"}, "/usr/bin", codex},
             {{"/opt/tools//codex"}, "/opt/tools/", "/opt/tools//codex"}, {{}, "/usr/bin", std::nullopt}}) {
        Harness h;
        h.fake.files = {{"/usr/local/bin/codex", 0644}};  // not executable: passed over
        for (const auto& file : present) h.fake.files.try_emplace(file, 0755u);
        h.fake.set("PATH", path);
        EXPECT_EQ(h.launcher->findCodex(), found);
    }
}

TEST(ServiceLaunch, StartsNodeOnTheShippedScriptWithItsWholeContract) {
    Harness h;
    h.fake.variables = {{"LANTERNMOOR_PORT", "1"}, {"LANG", "C.UTF-8"}, {"PATH", "/usr/bin:/bin"}};  // PATH is not de-duplicated
    h.fake.files.try_emplace("/opt/homebrew/bin/node", 0755u);  // found where PATH does not reach
    h.fake.scripts["/opt/homebrew/bin/node --version"] = {.output = "v24.1.0"};
    h.fake.scripts["/opt/homebrew/bin/node"] = {.exitAfter = std::nullopt};
    h.serviceAnswers();
    h.launch();
    // The version probe's time limit goes with the probe: an idle launcher is never woken for it.
    EXPECT_EQ(h.fake.clock, h.fake.start) << "the clock had to run on to a timer left behind";
    const auto& service = h.fake.children.at(1)->configuration;
    EXPECT_EQ(std::tuple(service.executable, service.arguments, service.workingDirectory, service.outlivesLauncher),
              std::tuple("/opt/homebrew/bin/node", Strings{"--experimental-strip-types", "/opt/lm/share/lanternmoor-pro/app/server.mjs"},
                         "/opt/lm/share/lanternmoor-pro/app", false));
    EXPECT_EQ(std::tuple(service.standardInput.kind, service.standardOutput.kind, service.standardOutput.path, service.standardError.kind),
              std::tuple(platform::Stream::Kind::nullDevice, platform::Stream::Kind::appendToFile,
                         "/home/ada/.local/share/Lanternmoor Pro/server.log", platform::Stream::Kind::sameAsOutput));
    EXPECT_EQ(std::map(service.environment->begin(), service.environment->end()),
              (std::map<std::string, std::string>{{"LANG", "C.UTF-8"}, {"LANTERNMOOR_APP_DIR", "/opt/lm/share/lanternmoor-pro/app"},
                                                  {"LANTERNMOOR_DATA_DIR", "/home/ada/.local/share/Lanternmoor Pro"}, {"LANTERNMOOR_PORT", "18765"},
                                                  {"LANTERNMOOR_CODEX_PATH", codex}, {"PATH", "/opt/homebrew/bin:/home/ada/.local/bin:/usr/bin:/bin"}}));
}

TEST(RunLog, IsStampedInUtcToTheSecondWhateverTheZone) {
    using namespace std::chrono;
    ::setenv("TZ", "Asia/Shanghai", 1);  // UTC whatever the zone; nothing else here reads it
    EXPECT_EQ(logStamp(sys_days{2024y / February / 29} + 86399999ms), "\n[2024-02-29T23:59:59Z] Lanternmoor Pro launcher started\n");
    EXPECT_EQ(logStamp(sys_days{1970y / January / 1} - 500ms), "\n[1969-12-31T23:59:59Z] Lanternmoor Pro launcher started\n");
}

TEST(Runtime, ResumesEveryStepOnTheMainThreadAndEndsTasksLeftSuspendedWithTheirScope) {
    Fake fake;
    std::vector<bool> onMainThread;
    std::function<void(int)> pending;
    auto task = [&]() -> platform::Task<> {
        onMainThread.push_back(fake.onMainThread);
        co_await platform::sleepFor(fake, 10ms);
        auto later = platform::completionOf<int>(fake, [&](auto done) { pending = std::move(done); });
        co_await later;
        onMainThread.push_back(fake.onMainThread);
        auto never = platform::completionOf<int>(fake, [&](auto done) { pending = std::move(done); });
        co_await never;
        onMainThread.push_back(fake.onMainThread);
    };
    {
        platform::TaskScope scope;
        scope.spawn(fake, task());
        EXPECT_TRUE(onMainThread.empty());  // nothing runs inside spawn
        fake.runUntilIdle();
        pending(1);  // from outside the main thread's loop, as a platform thread would
        fake.runUntilIdle();
        EXPECT_EQ(scope.unfinished(), 1u);
    }
    pending(2);  // after the scope ended the frame: nothing is resumed
    fake.runUntilIdle();
    EXPECT_EQ(onMainThread, (std::vector<bool>{true, true}));
}

}  // namespace lm::test
