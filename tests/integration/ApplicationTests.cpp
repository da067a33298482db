// The real application object: the event loop, and termination signals reaching the delegate
// through that loop rather than inside their handler.
#include <QCoreApplication>
#include <QTimer>
#include <csignal>
#include <deque>
#include <gtest/gtest.h>

#include "LanternmoorPro/platform/qt/QtApplication.hpp"

namespace lm::testing {
namespace {

using platform::TerminateReply;
using platform::qt::QtApplication;

// Records the calls it gets and answers termination requests from a script, "now" once it
// runs out.
struct RecordingDelegate final : platform::ApplicationDelegate {
    std::vector<std::string> calls;
    std::deque<TerminateReply> replies;
    std::function<void()> onLaunch, onLater;

    void applicationDidFinishLaunching() override {
        calls.push_back("launched");
        onLaunch();
    }
    bool applicationShouldHandleReopen(bool) override { return false; }
    TerminateReply applicationShouldTerminate() override {
        calls.push_back("asked");
        if (replies.empty()) return TerminateReply::now;
        const auto reply = replies.front();
        replies.pop_front();
        if (reply == TerminateReply::later) onLater();
        return reply;
    }
    void applicationWillTerminate() override { calls.push_back("ended"); }
};

TEST(QtApplication, TerminationRequestsAndSignalsReachTheDelegateThroughTheLoop) {
    const auto handlerOf = [](int signal) {
        struct sigaction current = {};
        ::sigaction(signal, nullptr, &current);
        return current.sa_handler;
    };
    const std::vector<std::string> once = {"launched", "asked", "ended"};
    // Rows: what, the signal raised at launch (0: terminate() called), the delegate's replies,
    // what happens a little after a "later" reply, the delegate's calls.
    const std::vector<std::tuple<const char*, int, std::deque<TerminateReply>, std::function<void(QtApplication&)>,
                                 std::vector<std::string>>>
        rows = {
            {"terminate(), answered now", 0, {}, {}, once},
            {"terminate(), answered later and then yes", 0, {TerminateReply::later},
             [](QtApplication& application) { application.replyToApplicationShouldTerminate(true); }, once},
            {"SIGTERM", SIGTERM, {}, {}, once},
            {"SIGINT", SIGINT, {}, {}, once},
            {"SIGHUP", SIGHUP, {}, {}, once},
            {"a second signal while a late reply is pending", SIGTERM, {TerminateReply::later, TerminateReply::now},
             [](QtApplication&) { std::raise(SIGINT); }, {"launched", "asked", "asked", "ended"}},
        };
    const std::vector<void (*)(int)> before = {handlerOf(SIGTERM), handlerOf(SIGINT), handlerOf(SIGHUP)};
    for (const auto& [name, signal, replies, afterLater, expected] : rows) {
        SCOPED_TRACE(name);
        QObject scope;
        auto delegate = std::make_shared<RecordingDelegate>();
        std::size_t callsRightAfterTheSignal = 0;
        {
            platform::qt::QtMainThread mainThread;
            QtApplication application(mainThread, nullptr);
            delegate->replies = replies;
            delegate->onLaunch = [&] {
                if (signal == 0) return application.terminate();
                std::raise(signal);
                callsRightAfterTheSignal = delegate->calls.size();
            };
            delegate->onLater = [&] { QTimer::singleShot(20, &scope, [&] { afterLater(application); }); };
            // A loop that never ends fails instead of hanging.
            QTimer::singleShot(5000, &scope, [] { QCoreApplication::exit(99); });
            application.setDelegate(delegate);
            EXPECT_EQ(application.run(), 0);
        }
        EXPECT_EQ(callsRightAfterTheSignal, signal != 0 ? 1u : 0u);
        EXPECT_EQ(delegate->calls, expected);
        EXPECT_EQ((std::vector{handlerOf(SIGTERM), handlerOf(SIGINT), handlerOf(SIGHUP)}), before);
    }
}

}  // namespace
}  // namespace lm::testing
