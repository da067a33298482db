#include "LanternmoorPro/platform/qt/QtMainThread.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>

namespace lm::platform::qt {

QtMainThread::QtMainThread() { context_.moveToThread(QCoreApplication::instance()->thread()); }

void QtMainThread::post(std::function<void()> task) {
    QMetaObject::invokeMethod(&context_, std::move(task), Qt::QueuedConnection);
}

void QtMainThread::postAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
    auto start = [this, delay, task = std::move(task)]() mutable {
        auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay);
        QTimer::singleShot(milliseconds, Qt::PreciseTimer, &context_, std::move(task));
    };
    // Timers belong to the thread that starts them, so a pause asked for elsewhere is first
    // carried to the main thread.
    if (QThread::currentThread() == context_.thread()) {
        start();
    } else {
        post(std::move(start));
    }
}

std::chrono::system_clock::time_point QtMainThread::now() const { return std::chrono::system_clock::now(); }

}  // namespace lm::platform::qt
