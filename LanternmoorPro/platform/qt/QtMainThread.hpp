// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QSocketNotifier>
#include <QTimer>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "LanternmoorPro/platform/MainThread.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::qt {

// The main thread is the thread that owns the Qt application object. Its tasks and timers are
// kept in a queue of its own; Qt's event loop only wakes it, through a byte on a pipe (a post
// from any thread) and one timer for the earliest due task. When that loop can no longer run
// (the display connection broke and the process is ending), serveWithoutEventLoop() serves the
// same queue by itself, so what was under way still finishes.
class QtMainThread final : public MainThread {
public:
    QtMainThread();
    void post(std::function<void()> task) override;
    TimerId postAfter(std::chrono::nanoseconds delay, std::function<void()> task) override;
    void cancel(TimerId timer) override;
    std::chrono::system_clock::time_point now() const override;

    // Runs tasks and timers as they come due until `done` holds or `limit` has passed.
    void serveWithoutEventLoop(const std::function<bool()>& done, std::chrono::nanoseconds limit);

private:
    using Clock = std::chrono::steady_clock;

    struct Timer {
        TimerId id;
        std::function<void()> task;
    };

    void wake();
    void drainWakeUps();
    void serve();
    // Sets Qt's one timer for the earliest task, or stops it when none is left.
    void armTimer();
    // The next task to run now, if any; the time of the next timer otherwise.
    std::function<void()> takeDue(std::optional<Clock::time_point>& nextTimer);

    std::mutex mutex_;
    std::deque<std::function<void()>> ready_;
    std::multimap<Clock::time_point, Timer> timers_;
    TimerId lastTimer_ = 0;
    posix::Pipe wakeUp_;
    std::unique_ptr<QSocketNotifier> notifier_;
    QTimer timer_;
};

}  // namespace lm::platform::qt
