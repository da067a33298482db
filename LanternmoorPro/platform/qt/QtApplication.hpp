// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <memory>

#include "LanternmoorPro/platform/ApplicationBase.hpp"
#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"

namespace lm::platform::qt {

class NextWindowRaiser;

// The application object over whichever Qt application exists: QApplication on the desktop,
// QCoreApplication in the terminal. From construction on, SIGTERM, SIGINT and SIGHUP reach
// terminate() through the event loop, one request per signal, so a second signal while a
// late reply is pending asks the delegate again.
class QtApplication final : public ApplicationBase {
public:
    QtApplication();
    ~QtApplication() override;

    void setActivationPolicy(ActivationPolicy policy) override;
    int run() override;
    void activateIgnoringOtherApps() override;

protected:
    void endEventLoop() override;

private:
    void serveSignals();

    posix::TerminationSignals signals_;
    std::unique_ptr<QSocketNotifier> signalNotifier_;
    std::unique_ptr<NextWindowRaiser> windowRaiser_;
};

}  // namespace lm::platform::qt
