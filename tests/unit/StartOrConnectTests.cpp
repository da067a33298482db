#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

using StartOrConnect = LauncherTest;

TEST_F(StartOrConnect, StartsTheServiceWritesOneStampAndOpensTheBrowserOnceItAnswersAsOurs) {
    serviceAnswersAfter(3);
    launch();

    ASSERT_TRUE(service());
    EXPECT_TRUE(service()->isRunning());
    EXPECT_TRUE(launcher->ready);
    EXPECT_TRUE(launcher->openItem->isEnabled());
    EXPECT_EQ(button().toolTip(), texts::runningToolTip);
    EXPECT_EQ(fake.opener.opened, Strings{workspace});
    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.application.terminateRequests, 0);
    // First probe, then one right after the launch, and one after each 0.18 s pause.
    ASSERT_EQ(fake.http.requests.size(), 5u);
    auto& request = fake.http.requests[0];
    EXPECT_EQ(request.url, "http://127.0.0.1:18765/api/health");
    EXPECT_EQ(request.idleTimeout, 800ms);
    EXPECT_EQ(request.totalTimeout, 1200ms);
    EXPECT_EQ(request.bodyLimit, 4096u);
    // The log stays open for the service.
    ASSERT_TRUE(launcher->logHandle);
    EXPECT_EQ(fake.files.nodes.at(logFile).mode, 0600u);
    EXPECT_EQ(fake.files.nodes.at("/home/ada/.local/share/Lanternmoor Pro").mode, 0700u);
    EXPECT_EQ(fake.files.nodes.at(logFile).content, "\n[2026-11-23T00:00:00Z] Lanternmoor Pro launcher started\n");
    EXPECT_EQ(service()->configuration.standardOutput.file, launcher->logHandle);
}

TEST_F(StartOrConnect, HandsOverToAServiceOfOursThatAlreadyAnswers) {
    fake.http.answers.push_back({FakeHttp::ours()});
    launch();

    EXPECT_EQ(fake.opener.opened.size(), 1u);
    EXPECT_TRUE(journalHas("terminate"));
    EXPECT_TRUE(fake.processes.created.empty());
    EXPECT_FALSE(fake.files.fileExists(logFile));
    EXPECT_FALSE(launcher->ready || launcher->ownedProcess);
    EXPECT_TRUE(fake.network.checks.empty());
}

TEST_F(StartOrConnect, WhenOursEndedButAServiceOfOursAnswersItHandsOverWithoutStoppingAnything) {
    serviceProcess().exitAfter = 10ms;
    fake.http.answers = {{HttpResult::failed()}, {FakeHttp::ours(), 100ms}};
    launch();

    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.opener.opened.size(), 1u);
    EXPECT_TRUE(journalHas("terminate"));
    EXPECT_FALSE(launcher->ready || launcher->ownedProcess);
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

// How the service fared before the notice: never launched, launched and never signalled, or
// stopped (SIGTERM) before the notice went up.
enum class Service { none, unsignalled, stopped };

struct Failed {
    const char* name;
    std::function<void(Harness&)> arrange;
    std::string_view title;
    std::string message = {};  // empty: not checked
    Service service = Service::none;
    bool logOpen = false;
};

class FailedStarts : public LauncherTest, public testing::WithParamInterface<Failed> {};

TEST_P(FailedStarts, ShowOneNoticeLeaveNothingRunningAndQuit) {
    auto& row = GetParam();
    row.arrange(*this);
    launch();

    EXPECT_EQ(alertTitles(), Strings{std::string(row.title)});
    if (!row.message.empty()) { EXPECT_EQ(alert().message, row.message); }
    EXPECT_TRUE(journalHas("ended"));
    EXPECT_EQ(fake.processes.running(), 0);
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_EQ(bool(launcher->logHandle), row.logOpen);
    if (!row.logOpen && row.service != Service::none) { EXPECT_EQ(fake.files.openHandles, 0); }
    if (row.service == Service::none) {
        EXPECT_FALSE(service());
        EXPECT_FALSE(fake.files.fileExists(logFile));
        // Node.js is looked for only once the shipped files are known to be there.
        if (row.title == texts::filesIncompleteTitle || row.title == texts::occupiedTitle) {
            EXPECT_TRUE(fake.processes.created.empty());
        }
    } else if (row.service == Service::stopped) {
        EXPECT_LT(journalIndex("SIGTERM " + pid()), journalIndex("alert " + std::string(row.title)));
    } else {
        EXPECT_FALSE(std::ranges::any_of(fake.journal, [](auto& entry) { return entry.starts_with("SIGTERM"); }));
    }
}

std::string afterLog(std::string_view text) { return std::string(text) + logFile; }

INSTANTIATE_TEST_SUITE_P(
    Cases, FailedStarts,
    testing::Values(
        Failed{"ForeignAnswer", [](auto& h) { h.fake.http.answers.push_back({FakeHttp::other()}); }, texts::occupiedTitle},
        Failed{"SilentListener", [](auto& h) { h.fake.network.accepting = true; }, texts::occupiedTitle},
        Failed{"NoServiceScript", [](auto& h) { h.fake.files.nodes.erase(serviceScript); }, texts::filesIncompleteTitle},
        Failed{"NoResourcesFolder", [](auto& h) { h.fake.folders.resources.reset(); }, texts::filesIncompleteTitle},
        Failed{"NodeTooOld", [](auto& h) { h.nodeVersion().output = "v22.12.1\n"; }, texts::nodeMissingTitle},
        Failed{"NodeAndCodexMissing", [](auto& h) { h.fake.files.nodes.erase(node); h.fake.files.nodes.erase(codex); },
               texts::nodeMissingTitle},
        Failed{"CodexMissing", [](auto& h) { h.fake.files.nodes.erase(codex); }, texts::codexMissingTitle},
        Failed{"LogCannotBeCreated", [](auto& h) { h.fake.files.failures["createFile"] = platform::Error{}; },
               texts::startFailedTitle,
               "无法创建本机运行日志。\n请确认文件夹“/home/ada/.local/share”可以写入，然后重新打开。"},
        Failed{"ServiceCannotStart",
               [](auto& h) {
                   h.serviceProcess().startError =
                       platform::Error{"POSIX", 13, "无法启动程序“/usr/bin/node”：没有访问权限。", "posix_spawn"};
               },
               texts::startFailedTitle, "无法启动程序“/usr/bin/node”：没有访问权限。" + texts::startFailedAdvice("/home/ada/.local/share"),
               Service::unsignalled},
        // Eighteen seconds after the launch it is stopped, then the notice tells where the log is.
        Failed{"TimedOut", [](auto&) {}, texts::timedOutTitle, afterLog(texts::timedOutMessage), Service::stopped},
        // Exits at once with the port free; the log is kept open until the quit path.
        Failed{"ExitedEarly", [](auto& h) { h.serviceProcess().exitAfter = 50ms; }, texts::notStartedTitle,
               afterLog(texts::notStartedMessage), Service::unsignalled, true},
        Failed{"ExitedWhileThePortWasTaken",
               [](auto& h) {
                   h.serviceProcess().exitAfter = 50ms;
                   h.fake.mainThread.postAfter(40ms, [&h] { h.fake.network.accepting = true; });
               },
               texts::occupiedTitle, "", Service::unsignalled, true},
        Failed{"ForeignDuringTheWait",
               [](auto& h) { h.fake.http.answers = {{HttpResult::failed()}, {HttpResult::failed()}, {FakeHttp::other()}}; },
               texts::occupiedTitle, "", Service::stopped}),
    [](const auto& info) { return std::string(info.param.name); });

// Termination requested while the sequence is suspended: it ends silently at its next check.
class QuitDuringStart : public LauncherTest, public testing::WithParamInterface<std::chrono::milliseconds> {};

TEST_P(QuitDuringStart, EndsWithoutANoticeAndLeavesNothingRunning) {
    fake.http.fallback = FakeHttp::Answer{HttpResult::failed(), 300ms};
    nodeVersion().exitAfter = 1s;
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
INSTANTIATE_TEST_SUITE_P(SuspensionPoints, QuitDuringStart, testing::Values(100ms, 500ms, 1450ms, 1620ms, 3000ms));

TEST_F(StartOrConnect, RunsExactlyOnceWhateverTheMenuDoesMeanwhile) {
    serviceAnswersAfter(2);
    launcher->applicationDidFinishLaunching();
    fake.mainThread.runFor(10ms);
    EXPECT_FALSE(launcher->applicationShouldHandleReopen(false));
    launcher->openGuide();
    fake.mainThread.runUntilIdle();
    EXPECT_EQ(std::ranges::count_if(fake.processes.created, [](auto& child) {
                  return child->configuration.arguments.front() == "--experimental-strip-types";
              }),
              1);
}

}  // namespace
}  // namespace lm::test
