#include "LanternmoorPro/platform/qt/QtMainThread.hpp"

#include <poll.h>
#include <unistd.h>

#include <QCoreApplication>

namespace lm::platform::qt {

QtMainThread::QtMainThread() {
    auto pipe = posix::makePipe(posix::NonBlocking::bothEnds);
    // Without a pipe the launcher could not run at all; failing loudly beats hanging silently.
    if (!pipe) qFatal("lanternmoor: %s", pipe.error().description.c_str());
    wakeUp_ = std::move(pipe.value());
    notifier_ = std::make_unique<QSocketNotifier>(wakeUp_.readEnd.get(), QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] { serve(); });
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer_, &QTimer::timeout, &timer_, [this] { serve(); });
}

void QtMainThread::post(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    wake();
}

MainThread::TimerId QtMainThread::postAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
    TimerId id = 0;
    {
        std::lock_guard lock(mutex_);
        id = ++lastTimer_;
        timers_.emplace(Clock::now() + delay, Timer{id, std::move(task)});
    }
    // The timer that waits for it is armed on the main thread, whoever asked.
    wake();
    return id;
}

void QtMainThread::cancel(TimerId timer) {
    {
        std::lock_guard lock(mutex_);
        std::erase_if(timers_, [timer](const auto& entry) { return entry.second.id == timer; });
    }
    armTimer();
}

std::chrono::system_clock::time_point QtMainThread::now() const { return std::chrono::system_clock::now(); }

void QtMainThread::wake() {
    const char byte = 1;
    // A full pipe already holds a wake-up that has not been served.
    [[maybe_unused]] auto written = ::write(wakeUp_.writeEnd.get(), &byte, 1);
}

std::function<void()> QtMainThread::takeDue(std::optional<Clock::time_point>& nextTimer) {
    std::lock_guard lock(mutex_);
    if (!ready_.empty()) {
        auto task = std::move(ready_.front());
        ready_.pop_front();
        return task;
    }
    if (timers_.empty()) return nullptr;
    if (timers_.begin()->first > Clock::now()) {
        nextTimer = timers_.begin()->first;
        return nullptr;
    }
    auto task = std::move(timers_.begin()->second.task);
    timers_.erase(timers_.begin());
    return task;
}

// One task at a time: a task may run a nested event loop (a modal alert), in which this is
// served again and must go on in the same order.
void QtMainThread::serve() {
    drainWakeUps();
    std::optional<Clock::time_point> nextTimer;
    while (auto task = takeDue(nextTimer)) task();
    armTimer();
}

void QtMainThread::armTimer() {
    std::optional<Clock::time_point> next;
    {
        std::lock_guard lock(mutex_);
        if (!timers_.empty()) next = timers_.begin()->first;
    }
    if (!next) return timer_.stop();
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
    timer_.start(std::max(wait, std::chrono::milliseconds(0)));
}

void QtMainThread::serveWithoutEventLoop(const std::function<bool()>& done, std::chrono::nanoseconds limit) {
    const auto end = Clock::now() + limit;
    while (!done() && Clock::now() < end) {
        std::optional<Clock::time_point> nextTimer;
        if (auto task = takeDue(nextTimer)) {
            task();
            continue;
        }
        auto until = std::min(nextTimer.value_or(end), end);
        auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        pollfd woken{wakeUp_.readEnd.get(), POLLIN, 0};
        ::poll(&woken, 1, static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));
        drainWakeUps();
    }
}

// The queue itself says what is due; the bytes only woke us.
void QtMainThread::drainWakeUps() {
    char bytes[256];
    while (posix::retryingInterrupted([&] { return ::read(wakeUp_.readEnd.get(), bytes, sizeof bytes); }) > 0) {
    }
}

}  // namespace lm::platform::qt
