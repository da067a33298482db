// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QObject>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::qt {

// The main thread is the thread that owns the Qt application object; tasks are queued
// invocations on a context object that lives there, so a post from any thread is safe.
class QtMainThread final : public MainThread {
public:
    QtMainThread();
    void post(std::function<void()> task) override;
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> task) override;
    std::chrono::system_clock::time_point now() const override;

private:
    QObject context_;
};

}  // namespace lm::platform::qt
