// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "LanternmoorPro/platform/ApplicationBase.hpp"
#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"

namespace lm::platform::qt {

class NextWindowRaiser;
class QuitRedirect;

// The application object over whichever Qt application exists: QApplication on the desktop,
// QCoreApplication in the terminal. Every way the process can be asked to end becomes the one
// termination contract: terminate(); SIGTERM, SIGINT and SIGHUP (through the event loop, one
// request per signal, so a second signal while a late reply is pending asks again); Qt's own
// quit (the session manager's, say).
//
// A process can also end under the event loop: Qt exits when the connection to the display
// breaks, and aborts on some fatal errors. Then the contract runs to its end before the process
// goes, served without the event loop, and `lastResort` follows (it stops whatever else of ours
// still runs). One instance at a time.
class QtApplication final : public ApplicationBase {
public:
    QtApplication(QtMainThread& mainThread, std::function<void()> lastResort);
    ~QtApplication() override;
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;

    int run() override;
    void activateIgnoringOtherApps() override;

    // The process is ending without the event loop; see above.
    void endAbruptly();

protected:
    void endEventLoop() override;

private:
    void serveSignals();
    void endFromAnotherThread();

    QtMainThread& mainThread_;
    std::function<void()> lastResort_;
    bool eventLoopGone_ = false;
    // Set once endAbruptly() has done its work on the main thread; another thread may wait for it.
    std::mutex abruptEnd_;
    std::condition_variable abruptEndSignal_;
    bool abruptEndDone_ = false;
    posix::TerminationSignals signals_;
    std::unique_ptr<QSocketNotifier> signalNotifier_;
    std::unique_ptr<NextWindowRaiser> windowRaiser_;
    std::unique_ptr<QuitRedirect> quitRedirect_;
};

}  // namespace lm::platform::qt
