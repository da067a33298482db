#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

class Shutdown : public LauncherTest {
protected:
    // A started, ready service.
    void startReady(fake::ScriptedProcess script = {.exitAfter = std::nullopt}) {
        serviceProcess() = script;
        serviceAnswersAfter(0);
        launch();
        ASSERT_TRUE(launcher->ready);
    }
    std::chrono::nanoseconds timeToEnd() {
        auto start = fake.mainThread.now();
        launcher->quitFromMenu();
        fake.mainThread.runUntilIdle();
        return fake.mainThread.now() - start;
    }
    void expectAllClosed() {
        EXPECT_FALSE(launcher->ownedProcess || launcher->logHandle);
        EXPECT_EQ(fake.files.openHandles, 0);
    }
};

TEST_F(Shutdown, AServiceThatObeysSigtermCostsOnePauseAndNoSigkill) {
    startReady();
    EXPECT_EQ(timeToEnd(), 100ms);
    EXPECT_TRUE(journalHas("SIGTERM " + pid()));
    EXPECT_FALSE(journalHas("SIGKILL " + pid()));
    EXPECT_LT(journalIndex("SIGTERM " + pid()), journalIndex("reply yes"));
    EXPECT_LT(journalIndex("reply yes"), journalIndex("ended"));
    expectAllClosed();
}

TEST_F(Shutdown, AServiceThatIgnoresSigtermIsKilledAfterThirtyPolls) {
    startReady({.exitAfter = std::nullopt, .ignoresTerminate = true});
    EXPECT_EQ(timeToEnd(), 3s);
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
    // The last call ends the still-running service for good and closes the log.
    EXPECT_EQ(std::ranges::count(fake.journal, "SIGTERM " + pid()), 1);
    EXPECT_EQ(std::ranges::count(fake.journal, "SIGKILL " + pid()), 1);
    EXPECT_EQ(fake.files.openHandles, 0);
    fake.mainThread.runUntilIdle();
    EXPECT_EQ(std::ranges::count(fake.journal, "ended"), 1);
}

TEST_F(Shutdown, QuitAfterConnectingToSomeoneElsesServiceSignalsNothing) {
    fake.http.answers.push_back({FakeHttp::ours()});
    launch();
    EXPECT_EQ(launcher->applicationShouldTerminate(), platform::TerminateReply::now);
    EXPECT_TRUE(fake.processes.created.empty());
}

TEST_F(Shutdown, TheServiceEndingByItselfAfterItWasReadyShowsTheStoppedPresentationAndNotice) {
    startReady();
    service()->exit(1);
    fake.mainThread.runUntilIdle();

    EXPECT_FALSE(launcher->ready || launcher->openItem->isEnabled());
    EXPECT_EQ(button().toolTip(), texts::stoppedToolTip);
    EXPECT_EQ(alertTitles(), Strings{"研究工作区已停止"});
    EXPECT_EQ(alert().message, "本机服务意外退出。请重新打开 Lanternmoor Pro。\n运行日志：\n" + std::string(logFile));
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

    Harness quitting;  // an end the launcher caused itself by quitting
    quitting.serviceAnswersAfter(0);
    quitting.launch();
    quitting.launcher->quitFromMenu();
    quitting.fake.mainThread.runUntilIdle();
    EXPECT_TRUE(quitting.fake.alerts.shown.empty());
    EXPECT_TRUE(quitting.launcher->ready);
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
    expectAllClosed();
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
