#include "LanternmoorPro/platform/qt/QtApplication.hpp"

#include <QCoreApplication>
#include <QEvent>
#include <QGuiApplication>
#include <QThread>
#include <QWidget>

#include <chrono>
#include <cstdlib>

namespace lm::platform::qt {
namespace {

// Room for the owned service's whole grace and its forced stop.
constexpr auto abruptEndLimit = std::chrono::seconds(6);

// Exit handlers and message handlers reach no object; this is the one they reach.
QtApplication* current = nullptr;
QtMessageHandler previousMessageHandler = nullptr;

void endAtExit() {
    if (current != nullptr) current->endAbruptly();
}

// Qt's Wayland client ends the process with _exit() right after it says so, which passes over
// every exit handler; this warning is the last moment anything of ours can run.
bool waylandConnectionLost(QtMsgType type, const QString& message) {
    return type == QtWarningMsg && message.startsWith(QLatin1String("The Wayland connection "));
}

void handleMessage(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (previousMessageHandler != nullptr) previousMessageHandler(type, context, message);
    // Qt aborts once this returns.
    if ((type == QtFatalMsg || waylandConnectionLost(type, message)) && current != nullptr) current->endAbruptly();
}

}  // namespace

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

// Qt's own quit would end the event loop behind the contract's back.
class QuitRedirect final : public QObject {
public:
    explicit QuitRedirect(QtApplication& application) : application_(application) {
        QCoreApplication::instance()->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched != QCoreApplication::instance() || event->type() != QEvent::Quit) return false;
        application_.terminate();
        return true;
    }

private:
    QtApplication& application_;
};

QtApplication::QtApplication(QtMainThread& mainThread, std::function<void()> lastResort)
    : mainThread_(mainThread),
      lastResort_(std::move(lastResort)),
      windowRaiser_(std::make_unique<NextWindowRaiser>()),
      quitRedirect_(std::make_unique<QuitRedirect>(*this)) {
    current = this;
    // Closing the last window (the fallback window, an alert) must not end the loop behind the
    // termination contract's back. A Mac's app bundle hides the Dock icon itself.
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr) {
        QGuiApplication::setQuitOnLastWindowClosed(false);
    }
    static const bool registered = std::atexit(endAtExit) == 0;
    (void)registered;
    previousMessageHandler = qInstallMessageHandler(handleMessage);
    if (signals_.readDescriptor() < 0) return;
    signalNotifier_ = std::make_unique<QSocketNotifier>(signals_.readDescriptor(), QSocketNotifier::Read);
    QObject::connect(signalNotifier_.get(), &QSocketNotifier::activated, signalNotifier_.get(),
                     [this] { serveSignals(); });
}

QtApplication::~QtApplication() {
    qInstallMessageHandler(previousMessageHandler);
    current = nullptr;
}

int QtApplication::run() {
    if (hasEnded()) return 0;
    mainThread_.post([this] { finishLaunching(); });
    const int status = QCoreApplication::exec();
    if (!hasEnded()) endAbruptly();
    return status;
}

void QtApplication::activateIgnoringOtherApps() { windowRaiser_->arm(); }

void QtApplication::endEventLoop() {
    if (!eventLoopGone_) QCoreApplication::exit(0);
}

void QtApplication::endAbruptly() {
    const auto* application = QCoreApplication::instance();
    if (application != nullptr && QThread::currentThread() != application->thread()) return endFromAnotherThread();
    if (!hasEnded() && application != nullptr) {
        eventLoopGone_ = true;
        if (!isAwaitingReply()) terminate();
        mainThread_.serveWithoutEventLoop([this] { return hasEnded(); }, abruptEndLimit);
    }
    if (lastResort_) lastResort_();
    std::lock_guard lock(abruptEnd_);
    abruptEndDone_ = true;
    abruptEndSignal_.notify_all();
}

// Launcher code runs on the main thread only. The thread that reports the end (Qt's Wayland
// reader, say) is held until the main thread has stopped what runs, since the process goes as
// soon as that thread returns; should the main thread never get to it, the last resort remains.
void QtApplication::endFromAnotherThread() {
    mainThread_.post([this] { endAbruptly(); });
    std::unique_lock lock(abruptEnd_);
    if (abruptEndSignal_.wait_for(lock, abruptEndLimit + std::chrono::seconds(1), [this] { return abruptEndDone_; })) return;
    if (lastResort_) lastResort_();
}

void QtApplication::serveSignals() {
    for (int pending = signals_.takePending(); pending > 0; --pending) terminate();
}

}  // namespace lm::platform::qt
