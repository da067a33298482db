#include "LauncherFixture.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm::test {
namespace {

using platform::TerminateReply;

class Shutdown : public LauncherTest {
protected:
    // A started, ready service.
    void startReady(fake::ScriptedProcess serviceScript = {.exitAfter = std::nullopt}) {
        fake.processes.scripts[std::string(node) + " --experimental-strip-types"] = serviceScript;
        serviceAnswersAfter(0);
        launch();
        ASSERT_TRUE(launcher->ready);
    }
    std::string pid() const { return std::to_string(service()->processIdentifier()); }
    std::chrono::nanoseconds timeToEnd() {
        auto start = fake.mainThread.now();
        launcher->quitFromMenu();
        fake.mainThread.runUntilIdle();
        return fake.mainThread.now() - start;
    }
};

TEST_F(Shutdown, AServiceThatObeysSigtermCostsOnePauseAndNoSigkill) {
    startReady();
    auto took = timeToEnd();

    EXPECT_EQ(took, 100ms);
    EXPECT_TRUE(journalHas("SIGTERM " + pid()));
    EXPECT_FALSE(journalHas("SIGKILL " + pid()));
    EXPECT_LT(journalIndex("SIGTERM " + pid()), journalIndex("reply yes"));
    EXPECT_LT(journalIndex("reply yes"), journalIndex("ended"));
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_FALSE(launcher->logHandle);
    EXPECT_EQ(fake.files.openHandles, 0);
}

TEST_F(Shutdown, AServiceThatIgnoresSigtermIsKilledAfterThirtyPolls) {
    startReady({.exitAfter = std::nullopt, .ignoresTerminate = true});
    auto took = timeToEnd();

    EXPECT_EQ(took, 3s);
    EXPECT_LT(journalIndex("SIGTERM " + pid()), journalIndex("SIGKILL " + pid()));
    EXPECT_LT(journalIndex("SIGKILL " + pid()), journalIndex("reply yes"));
    EXPECT_FALSE(service()->isRunning());
}

TEST_F(Shutdown, ASecondQuitWhileTheFirstWaitsEndsAtOnceAndTheLastCallStillSignals) {
    startReady({.exitAfter = std::nullopt, .ignoresTerminate = true});
    launcher->quitFromMenu();
    fake.mainThread.runFor(1s);
    EXPECT_FALSE(journalHas("ended"));

    launcher->quitFromMenu();
    EXPECT_TRUE(journalHas("ended"));
    // The last call signals the still-running service once more and closes the log.
    EXPECT_EQ(std::count(fake.journal.begin(), fake.journal.end(), "SIGTERM " + pid()), 2);
    EXPECT_EQ(fake.files.openHandles, 0);
    fake.mainThread.runUntilIdle();
    EXPECT_EQ(std::count(fake.journal.begin(), fake.journal.end(), "ended"), 1);
}

TEST_F(Shutdown, QuitAfterConnectingToSomeoneElsesServiceSignalsNothing) {
    fake.http.answers.push_back({FakeHttp::ours()});
    launch();
    EXPECT_EQ(launcher->applicationShouldTerminate(), TerminateReply::now);
    EXPECT_TRUE(fake.processes.created.empty());
}

TEST_F(Shutdown, TheServiceEndingByItselfAfterItWasReadyShowsTheStoppedPresentationAndNotice) {
    startReady();
    service()->exit(1);
    fake.mainThread.runUntilIdle();

    EXPECT_FALSE(launcher->ready);
    EXPECT_FALSE(launcher->openItem->isEnabled());
    EXPECT_EQ(button().toolTip(), texts::stoppedToolTip);
    ASSERT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(fake.alerts.shown[0].title, "研究工作区已停止");
    EXPECT_EQ(fake.alerts.shown[0].message,
              "本机服务意外退出。请重新打开 Lanternmoor Pro。\n运行日志：\n/home/ada/.local/share/Lanternmoor Pro/server.log");
    // The process had ended, so termination is immediate.
    EXPECT_TRUE(journalHas("ended"));
    EXPECT_FALSE(journalHas("reply yes"));
}

TEST_F(Shutdown, EndsThatAreNotNewsChangeNothing) {
    startReady();
    launcher->childExited(service()->processIdentifier() + 1);  // an older process
    EXPECT_TRUE(launcher->ready);

    launcher->failurePresented = true;
    launcher->childExited(service()->processIdentifier());
    EXPECT_TRUE(launcher->ready);
    EXPECT_TRUE(fake.alerts.shown.empty());
}

TEST_F(Shutdown, TheServiceEndingDuringTheQuitShowsNothing) {
    startReady();
    launcher->quitFromMenu();
    fake.mainThread.runUntilIdle();
    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_TRUE(launcher->ready);  // untouched: the end was ours to cause
}

TEST_F(Shutdown, StoppingWithoutAProcessLeavesAnOpenLogOpen) {
    fake.files.addFile("/x");
    launcher->logHandle = fake.files.openForWriting("/x").value();
    await(launcher->stopOwnedChild());
    EXPECT_TRUE(launcher->logHandle);
    EXPECT_EQ(fake.files.openHandles, 1);
}

TEST_F(Shutdown, StoppingAProcessThatAlreadyEndedSendsNoSignalButClearsBoth) {
    startReady();
    launcher->ready = false;  // as on the start path, where an end is not news
    service()->exit(0);
    fake.mainThread.runUntilIdle();
    await(launcher->stopOwnedChild());

    EXPECT_FALSE(journalHas("SIGTERM " + pid()));
    EXPECT_FALSE(launcher->ownedProcess);
    EXPECT_FALSE(launcher->logHandle);
    EXPECT_EQ(fake.files.openHandles, 0);
}

TEST_F(Shutdown, AChildExitReportReachesNoLauncherThatIsGone) {
    startReady();
    auto child = service();
    launcher.reset();
    child->exit(1);
    fake.mainThread.runUntilIdle();  // the posted report finds nobody, and nothing breaks
    EXPECT_TRUE(fake.alerts.shown.empty());
}

}  // namespace
}  // namespace lm::test
