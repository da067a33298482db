#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

using ServiceLaunch = LauncherTest;

std::map<std::string, std::string> asMap(const platform::EnvironmentVariables& variables) {
    return {variables.begin(), variables.end()};
}

TEST_F(ServiceLaunch, StartsNodeOnTheShippedScriptWithItsContract) {
    fake.environment.set("LANTERNMOOR_PORT", "1");
    fake.environment.set("LANTERNMOOR_APP_DIR", "/elsewhere");
    fake.environment.set("PATH", "/usr/bin:/bin");
    serviceAnswersAfter(0);
    launch();

    auto& configuration = service()->configuration;
    EXPECT_EQ(configuration.executable, "/usr/bin/node");
    EXPECT_EQ(configuration.arguments,
              (Strings{"--experimental-strip-types", "/opt/lm/share/lanternmoor-pro/app/server.mjs"}));
    EXPECT_EQ(configuration.workingDirectory, "/opt/lm/share/lanternmoor-pro/app");
    EXPECT_EQ(configuration.standardInput.kind, platform::Stream::Kind::nullDevice);
    EXPECT_EQ(configuration.standardOutput.file, configuration.standardError.file);

    auto environment = asMap(*configuration.environment);
    EXPECT_EQ(environment, (std::map<std::string, std::string>{
                               {"LANG", "zh_CN.UTF-8"},
                               {"LANTERNMOOR_APP_DIR", "/opt/lm/share/lanternmoor-pro/app"},
                               {"LANTERNMOOR_DATA_DIR", "/home/ada/.local/share/Lanternmoor Pro"},
                               {"LANTERNMOOR_PORT", "18765"},
                               {"LANTERNMOOR_CODEX_PATH", "/home/ada/.local/bin/codex"},
                               // Not de-duplicated: /usr/bin stands twice.
                               {"PATH", "/usr/bin:/home/ada/.local/bin:/usr/bin:/bin"},
                           }));
}

TEST_F(ServiceLaunch, ThePathEndsInTheDefaultOrInNothingAsTheLauncherWasGiven) {
    auto servicePath = [](std::optional<std::string> inherited) {
        Harness run;
        run.setPath(inherited);
        run.fake.files.addExecutable("/opt/homebrew/bin/node");
        run.fake.processes.scripts["/opt/homebrew/bin/node --version"] = {.output = "v24.1.0"};
        run.fake.processes.scripts["/opt/homebrew/bin/node --experimental-strip-types"] = {.exitAfter = std::nullopt};
        run.serviceAnswersAfter(0);
        run.launch();
        return asMap(*run.service()->configuration.environment).at("PATH");
    };
    EXPECT_EQ(servicePath(std::nullopt), "/opt/homebrew/bin:/home/ada/.local/bin:/usr/bin:/bin:/usr/sbin:/sbin");
    EXPECT_EQ(servicePath(""), "/opt/homebrew/bin:/home/ada/.local/bin:");
}

TEST_F(ServiceLaunch, IsOwnedBeforeItStartsSoAFailedStartCanBeCleanedUp) {
    fake.processes.scripts["/usr/bin/node --experimental-strip-types"].startError = platform::Error{"POSIX", 2, "x", "y"};
    auto result = launcher->launchService(node, codex, FileLocation{"/opt/lm/share/lanternmoor-pro/app", true},
                                          FileLocation{"/d", true});
    EXPECT_FALSE(result);
    ASSERT_TRUE(launcher->ownedProcess);
    EXPECT_FALSE(launcher->ownedProcess->isRunning());
}

TEST(Locations, HaveTheirPathAndURLForms) {
    fake::FakePlatform fake;
    fake.folders.resources = "/opt/Lantern moor/share/";
    fake.folders.applicationSupport = {"/home/ada/.local/share/", "/ignored"};
    fake.folders.home = "/home/ada/";
    auto platform = fake.platform();
    auto launcher = std::make_shared<LanternmoorLauncher>(platform);

    EXPECT_EQ(launcher->workspaceURL(), "http://127.0.0.1:18765/");
    EXPECT_EQ(launcher->appRoot()->path, "/opt/Lantern moor/share/app");
    EXPECT_EQ(launcher->appRoot()->url(), "file:///opt/Lantern%20moor/share/app/");
    EXPECT_EQ(launcher->dataFolderURL()->path, "/home/ada/.local/share/Lanternmoor Pro");
    EXPECT_EQ(launcher->logURL()->path, "/home/ada/.local/share/Lanternmoor Pro/server.log");
    EXPECT_EQ(launcher->logURL()->url(), "file:///home/ada/.local/share/Lanternmoor%20Pro/server.log");
    EXPECT_EQ(launcher->homeFolderPath(), "/home/ada");

    fake.folders.resources.reset();
    fake.folders.applicationSupport.clear();
    EXPECT_FALSE(launcher->appRoot());
    EXPECT_FALSE(launcher->logURL());
    EXPECT_EQ(launcher->workspaceURL(), "http://127.0.0.1:18765/");
}

TEST(Launcher, StartsWithEveryFieldAtItsInitialValue) {
    fake::FakePlatform fake;
    auto platform = fake.platform();
    LanternmoorLauncher launcher(platform);
    EXPECT_EQ(launcher.port, 18765);
    EXPECT_EQ(launcher.appID, "lanternmoor-local-pro");
    EXPECT_FALSE(launcher.statusItem || launcher.openItem || launcher.ownedProcess || launcher.logHandle);
    EXPECT_FALSE(launcher.ready || launcher.shuttingDown || launcher.failurePresented);
    EXPECT_TRUE(fake.journal.empty());
}

TEST(Launcher, TheEntryMakesItTheAccessoryDelegateAndRunsTheLoop) {
    fake::FakePlatform fake;
    auto platform = fake.platform();
    EXPECT_EQ(runLauncher(platform), 0);
    EXPECT_EQ(fake.application.activationPolicy, platform::ActivationPolicy::accessory);
    EXPECT_EQ(fake.statusBar.items.size(), 1u);  // launching finished reached the launcher
}

}  // namespace
}  // namespace lm::test
