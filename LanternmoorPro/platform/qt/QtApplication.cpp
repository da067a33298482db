#include "LanternmoorPro/platform/qt/QtApplication.hpp"

#include <QCoreApplication>
#include <QEvent>
#include <QGuiApplication>
#include <QMetaObject>
#include <QWidget>

namespace lm::platform::qt {

// The launcher has no window to bring forward; what it can bring forward is the next window
// it shows, which is the alert it is about to run.
class NextWindowRaiser final : public QObject {
public:
    void arm() {
        if (armed_) return;
        armed_ = true;
        QCoreApplication::instance()->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        auto* widget = qobject_cast<QWidget*>(watched);
        if (event->type() != QEvent::Show || widget == nullptr || !widget->isWindow()) return false;
        armed_ = false;
        QCoreApplication::instance()->removeEventFilter(this);
        widget->raise();
        widget->activateWindow();
        return false;
    }

private:
    bool armed_ = false;
};

QtApplication::QtApplication() : windowRaiser_(std::make_unique<NextWindowRaiser>()) {
    if (signals_.readDescriptor() < 0) return;
    signalNotifier_ = std::make_unique<QSocketNotifier>(signals_.readDescriptor(), QSocketNotifier::Read);
    QObject::connect(signalNotifier_.get(), &QSocketNotifier::activated, signalNotifier_.get(),
                     [this] { serveSignals(); });
}

QtApplication::~QtApplication() = default;

void QtApplication::setActivationPolicy(ActivationPolicy) {
    // There is no Dock or application menu bar to hide on Linux, and no window is ever made
    // for the launcher. What is left of every policy is that closing the last alert must not
    // end the loop behind the termination contract's back.
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr) {
        QGuiApplication::setQuitOnLastWindowClosed(false);
    }
}

int QtApplication::run() {
    if (hasEnded()) return 0;
    QMetaObject::invokeMethod(QCoreApplication::instance(), [this] { finishLaunching(); }, Qt::QueuedConnection);
    return QCoreApplication::exec();
}

void QtApplication::activateIgnoringOtherApps() { windowRaiser_->arm(); }

void QtApplication::endEventLoop() { QCoreApplication::exit(0); }

void QtApplication::serveSignals() {
    for (int pending = signals_.takePending(); pending > 0; --pending) terminate();
}

}  // namespace lm::platform::qt
