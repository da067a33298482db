// Platform interfaces: standard C++ only. The main thread, and the application whose event loop
// runs on it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace lm::platform {

class MainThread {
public:
    using TimerId = std::uint64_t;

    virtual ~MainThread() = default;
    // Runs `task` on the main thread later, in posting order. Safe from any thread.
    virtual void post(std::function<void()> task) = 0;
    // Runs `task` on the main thread once `delay` has passed, unless it is cancelled first.
    virtual TimerId postAfter(std::chrono::nanoseconds delay, std::function<void()> task) = 0;
    // Takes a task posted with postAfter off the queue, so an idle launcher is never woken for
    // nothing; one that has run already is left alone. Main thread only.
    virtual void cancel(TimerId timer) = 0;
    virtual std::chrono::system_clock::time_point now() const = 0;
};

enum class TerminateReply { now, later };

// What the application asks of the one object that runs the launcher. All on the main thread.
class ApplicationDelegate {
public:
    virtual ~ApplicationDelegate() = default;
    virtual void applicationDidFinishLaunching() = 0;
    virtual bool applicationShouldHandleReopen(bool hasVisibleWindows) = 0;
    virtual TerminateReply applicationShouldTerminate() = 0;
    virtual void applicationWillTerminate() = 0;
};

class Application {
public:
    virtual ~Application() = default;
    // The application does not keep its delegate alive.
    virtual void setDelegate(std::weak_ptr<ApplicationDelegate> delegate) = 0;
    // The event loop: tells the delegate that launching finished, then serves events until
    // termination ends it. Returns the exit status.
    virtual int run() = 0;
    // Begins termination: asks the delegate, then ends at once (now) or waits for the late
    // reply (later) while main-thread tasks go on running.
    virtual void terminate() = 0;
    virtual void replyToApplicationShouldTerminate(bool shouldTerminate) = 0;
    // Brings the launcher in front of other applications before an alert.
    virtual void activateIgnoringOtherApps() = 0;
};

}  // namespace lm::platform
