#include "LauncherFixture.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm::test {
namespace {

using StartOrConnect = LauncherTest;

TEST_F(StartOrConnect, StartsTheServiceAndOpensTheBrowserOnceItAnswersAsOurs) {
    serviceAnswersAfter(3);
    launch();

    ASSERT_TRUE(service());
    EXPECT_TRUE(service()->isRunning());
    EXPECT_TRUE(launcher->ready);
    EXPECT_TRUE(launcher->openItem->isEnabled());
    EXPECT_EQ(button().toolTip(), texts::runningToolTip);
    EXPECT_EQ(fake.opener.opened, std::vector<std::string>{"http://127.0.0.1:18765/"});
    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.application.terminateRequests, 0);
    // First probe, then one right after the launch, and one after each 0.18 s pause.
    EXPECT_EQ(fake.http.requests.size(), 5u);
    EXPECT_EQ(fake.http.requests[0].url, "http://127.0.0.1:18765/api/health");
}

TEST_F(StartOrConnect, WritesOneStampAndLeavesTheLogOpenForTheService) {
    serviceAnswersAfter(0);
    launch();

    ASSERT_TRUE(launcher->logHandle);
    auto& log = fake.files.nodes.at(logFile);
    EXPECT_EQ(log.mode, 0600u);
    EXPECT_EQ(fake.files.nodes.at("/home/ada/.local/share/Lanternmoor Pro").mode, 0700u);
    EXPECT_EQ(log.content, "\n[2026-11-23T00:00:00Z] Lanternmoor Pro launcher started\n");
    EXPECT_EQ(service()->configuration.standardOutput.file, launcher->logHandle);
}

TEST_F(StartOrConnect, HandsOverToAServiceOfOursThatAlreadyAnswers) {
    fake.http.answers.push_back({FakeHttp::ours()});
    launch();

    EXPECT_EQ(fake.opener.opened.size(), 1u);
    EXPECT_TRUE(journalHas("terminate"));
    EXPECT_TRUE(fake.processes.created.empty());
    EXPECT_FALSE(fake.files.fileExists(logFile));
    EXPECT_FALSE(launcher->ready);
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_TRUE(fake.network.checks.empty());
}

struct RefusedStart {
    const char* name;
    std::function<void(fake::FakePlatform&)> arrange;
    std::string_view title;
};

class RefusedStarts : public LauncherTest, public testing::WithParamInterface<RefusedStart> {};

TEST_P(RefusedStarts, ShowOneNoticeStartNothingAndQuit) {
    GetParam().arrange(fake);
    launch();

    EXPECT_EQ(alertTitles(), std::vector<std::string>{std::string(GetParam().title)});
    EXPECT_FALSE(service());
    // Node.js is looked for only once the shipped files are known to be there.
    if (GetParam().title == texts::filesIncompleteTitle || GetParam().title == texts::occupiedTitle) {
        EXPECT_TRUE(fake.processes.created.empty());
    }
    EXPECT_FALSE(fake.files.fileExists(logFile));
    EXPECT_TRUE(journalHas("ended"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RefusedStarts,
    testing::Values(
        RefusedStart{"ForeignAnswer", [](auto& f) { f.http.answers.push_back({FakeHttp::other()}); }, texts::occupiedTitle},
        RefusedStart{"SilentListener", [](auto& f) { f.network.accepting = true; }, texts::occupiedTitle},
        RefusedStart{"NoServiceScript", [](auto& f) { f.files.nodes.erase(serviceScript); }, texts::filesIncompleteTitle},
        RefusedStart{"NoResourcesFolder", [](auto& f) { f.folders.resources.reset(); }, texts::filesIncompleteTitle},
        RefusedStart{"NodeTooOld",
                     [](auto& f) { f.processes.scripts[std::string(node) + " --version"].output = "v22.12.1\n"; },
                     texts::nodeMissingTitle},
        RefusedStart{"NodeAndCodexMissing",
                     [](auto& f) {
                         f.files.nodes.erase(node);
                         f.files.nodes.erase(codex);
                     },
                     texts::nodeMissingTitle},
        RefusedStart{"CodexMissing", [](auto& f) { f.files.nodes.erase(codex); }, texts::codexMissingTitle}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(StartOrConnect, ALogThatCannotBeCreatedEndsInTheStartFailureWithTheLaunchersOwnError) {
    fake.files.failures["createFile"] = platform::Error{};
    launch();

    ASSERT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(fake.alerts.shown[0].title, texts::startFailedTitle);
    EXPECT_EQ(fake.alerts.shown[0].message,
              "无法创建本机运行日志。\n请确认你的“资源库 / Application Support”文件夹可以写入，然后重新打开。");
    EXPECT_FALSE(service());
}

TEST_F(StartOrConnect, AServiceThatCannotStartIsClearedAndItsLogClosed) {
    fake.processes.scripts[std::string(node) + " --experimental-strip-types"].startError =
        platform::Error{"POSIX", 13, "无法启动程序“/usr/bin/node”：没有访问权限。", "posix_spawn"};
    launch();

    ASSERT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(fake.alerts.shown[0].message, "无法启动程序“/usr/bin/node”：没有访问权限。" + std::string(texts::startFailedAdvice));
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_FALSE(launcher->logHandle);
    EXPECT_EQ(fake.files.openHandles, 0);
    EXPECT_FALSE(journalHas("SIGTERM 4001"));
}

TEST_F(StartOrConnect, TimesOutEighteenSecondsAfterTheLaunchStopsTheServiceThenTellsWhereTheLogIs) {
    launch();

    ASSERT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(fake.alerts.shown[0].title, texts::timedOutTitle);
    EXPECT_EQ(fake.alerts.shown[0].message, std::string(texts::timedOutMessage) + logFile);
    EXPECT_FALSE(service()->isRunning());
    EXPECT_LT(journalIndex("SIGTERM " + std::to_string(service()->processIdentifier())), journalIndex("alert 工作区启动超时"));
    EXPECT_FALSE(launcher->ownedProcess);
}

TEST_F(StartOrConnect, AProbeBegunBeforeTheDeadlineThatAnswersOursAfterItIsASuccess) {
    // Probes that take 1 s each: the last one starts just before the deadline and ends after it.
    fake.http.fallback.reset();
    for (int i = 0; i < 16; ++i) fake.http.answers.push_back({HttpResult::failed(), 1s});
    fake.http.answers.push_back({FakeHttp::ours(), 1s});
    launch();

    EXPECT_TRUE(launcher->ready);
    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.opener.opened.size(), 1u);
}

TEST_F(StartOrConnect, AServiceThatExitsAtOnceWithThePortFreeIsReportedAsNotStarted) {
    fake.processes.scripts[std::string(node) + " --experimental-strip-types"].exitAfter = 50ms;
    launch();

    EXPECT_EQ(alertTitles(), std::vector<std::string>{std::string(texts::notStartedTitle)});
    EXPECT_EQ(fake.alerts.shown[0].message, std::string(texts::notStartedMessage) + logFile);
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_TRUE(launcher->logHandle);  // kept open until the quit path
    EXPECT_FALSE(journalHas("SIGTERM " + std::to_string(service()->processIdentifier())));
}

TEST_F(StartOrConnect, AServiceThatExitsWhileSomethingElseTakesThePortIsReportedAsOccupied) {
    fake.processes.scripts[std::string(node) + " --experimental-strip-types"].exitAfter = 50ms;
    fake.mainThread.postAfter(40ms, [this] { fake.network.accepting = true; });
    launch();
    EXPECT_EQ(alertTitles(), std::vector<std::string>{std::string(texts::occupiedTitle)});
}

TEST_F(StartOrConnect, WhenOursEndedButAServiceOfOursAnswersItHandsOverWithoutStoppingAnything) {
    fake.processes.scripts[std::string(node) + " --experimental-strip-types"].exitAfter = 10ms;
    fake.http.answers = {{HttpResult::failed()}, {FakeHttp::ours(), 100ms}};
    launch();

    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.opener.opened.size(), 1u);
    EXPECT_TRUE(journalHas("terminate"));
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_FALSE(launcher->ready);
}

TEST_F(StartOrConnect, SomethingForeignAnsweringDuringTheWaitStopsOursFirst) {
    fake.http.answers = {{HttpResult::failed()}, {HttpResult::failed()}, {FakeHttp::other()}};
    launch();

    EXPECT_EQ(alertTitles(), std::vector<std::string>{std::string(texts::occupiedTitle)});
    EXPECT_LT(journalIndex("SIGTERM 4001"), journalIndex("alert 本机地址已被其他程序占用"));
    EXPECT_FALSE(service()->isRunning());
}

// Termination requested while the sequence is suspended: it ends silently at its next check.
class QuitDuringStart : public LauncherTest, public testing::WithParamInterface<std::chrono::milliseconds> {};

TEST_P(QuitDuringStart, EndsWithoutANoticeAndLeavesNothingRunning) {
    fake.http.fallback = FakeHttp::Answer{HttpResult::failed(), 300ms};
    fake.processes.scripts[std::string(node) + " --version"].exitAfter = 1s;
    launcher->applicationDidFinishLaunching();
    fake.mainThread.runFor(GetParam());
    launcher->quitFromMenu();
    fake.mainThread.runUntilIdle();

    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_TRUE(journalHas("ended"));
    EXPECT_EQ(fake.processes.running(), 0);
    EXPECT_TRUE(fake.opener.opened.empty());
}

// During the first probe, the Node.js search, the first wait probe, a pause, a later probe.
INSTANTIATE_TEST_SUITE_P(SuspensionPoints, QuitDuringStart,
                         testing::Values(100ms, 500ms, 1450ms, 1620ms, 3000ms));

TEST_F(StartOrConnect, RunsExactlyOnceWhateverTheMenuDoesMeanwhile) {
    serviceAnswersAfter(2);
    launcher->applicationDidFinishLaunching();
    fake.mainThread.runFor(10ms);
    EXPECT_FALSE(launcher->applicationShouldHandleReopen(false));
    launcher->openGuide();
    fake.mainThread.runUntilIdle();

    int launches = 0;
    for (auto& child : fake.processes.created)
        launches += child->configuration.arguments.front() == "--experimental-strip-types";
    EXPECT_EQ(launches, 1);
}

}  // namespace
}  // namespace lm::test
