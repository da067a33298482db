// The real application object: the event loop, and termination signals reaching the delegate
// through that loop rather than inside their handler.
#include <QCoreApplication>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <csignal>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/qt/QtApplication.hpp"

namespace lm::testing {
namespace {

using platform::TerminateReply;
using platform::qt::QtApplication;

// Records the calls it gets; answers termination requests from a script, "now" when it runs
// out. `onLaunch` runs inside applicationDidFinishLaunching.
struct RecordingDelegate final : platform::ApplicationDelegate {
    std::vector<std::string> calls;
    std::deque<TerminateReply> replies;
    std::function<void()> onLaunch;
    std::function<void()> onLater;
    int loopLevelAtLaunch = -1;

    void applicationDidFinishLaunching() override {
        calls.push_back("didFinishLaunching");
        loopLevelAtLaunch = QThread::currentThread()->loopLevel();
        if (onLaunch) onLaunch();
    }
    bool applicationShouldHandleReopen(bool) override { return false; }
    TerminateReply applicationShouldTerminate() override {
        calls.push_back("shouldTerminate");
        if (replies.empty()) return TerminateReply::now;
        auto reply = replies.front();
        replies.pop_front();
        if (reply == TerminateReply::later && onLater) onLater();
        return reply;
    }
    void applicationWillTerminate() override { calls.push_back("willTerminate"); }
};

class QtApplicationLoop : public ::testing::Test {
protected:
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

    // Runs the loop with a safety net: a loop that never ends fails instead of hanging.
    int run(QtApplication& application) {
        QObject guard;
        QTimer::singleShot(5000, &guard, [] { QCoreApplication::exit(99); });
        application.setDelegate(delegate);
        return application.run();
    }
};

TEST_F(QtApplicationLoop, LaunchingFinishesInsideTheLoopAndTerminationEndsIt) {
    QtApplication application;
    delegate->onLaunch = [&application] { application.terminate(); };

    EXPECT_EQ(run(application), 0);
    EXPECT_GE(delegate->loopLevelAtLaunch, 1);
    EXPECT_EQ(delegate->calls, (std::vector<std::string>{"didFinishLaunching", "shouldTerminate", "willTerminate"}));
}

class TerminationSignal : public QtApplicationLoop, public ::testing::WithParamInterface<int> {};

TEST_P(TerminationSignal, AsksTheDelegateFromTheLoopNotFromTheHandler) {
    QtApplication application;
    std::size_t callsRightAfterTheSignal = 0;
    delegate->onLaunch = [this, &callsRightAfterTheSignal] {
        std::raise(GetParam());
        callsRightAfterTheSignal = delegate->calls.size();
    };

    EXPECT_EQ(run(application), 0);
    EXPECT_EQ(callsRightAfterTheSignal, 1u);
    EXPECT_EQ(delegate->calls, (std::vector<std::string>{"didFinishLaunching", "shouldTerminate", "willTerminate"}));
}

INSTANTIATE_TEST_SUITE_P(QtApplication, TerminationSignal, ::testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const ::testing::TestParamInfo<int>& info) { return std::string(sigabbrev_np(info.param)); });

TEST_F(QtApplicationLoop, ASecondSignalWhileALateReplyIsPendingAsksAgain) {
    QtApplication application;
    delegate->replies = {TerminateReply::later, TerminateReply::now};
    delegate->onLaunch = [] { std::raise(SIGTERM); };
    delegate->onLater = [] { QTimer::singleShot(20, [] { std::raise(SIGINT); }); };

    EXPECT_EQ(run(application), 0);
    EXPECT_EQ(delegate->calls, (std::vector<std::string>{"didFinishLaunching", "shouldTerminate", "shouldTerminate",
                                                         "willTerminate"}));
}

TEST(QtApplicationSignals, GoBackToTheirEarlierHandlersWhenTheApplicationGoes) {
    const auto handlerOf = [](int signal) {
        struct sigaction current = {};
        ::sigaction(signal, nullptr, &current);
        return current.sa_handler;
    };
    const std::vector<int> watched = {SIGTERM, SIGINT, SIGHUP};
    std::vector<void (*)(int)> before;
    for (int signal : watched) before.push_back(handlerOf(signal));
    {
        QtApplication application;
        for (std::size_t index = 0; index < watched.size(); ++index) EXPECT_NE(handlerOf(watched[index]), before[index]);
    }
    for (std::size_t index = 0; index < watched.size(); ++index) EXPECT_EQ(handlerOf(watched[index]), before[index]);
}

}  // namespace
}  // namespace lm::testing
