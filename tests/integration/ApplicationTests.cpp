// The real application object: the termination signals reach the launcher through the event loop, and
// what is under way still runs to its end when the loop is gone.
#include <QCoreApplication>
#include <csignal>

#include "LanternmoorPro/platform/qt/QtApplication.hpp"
#include "integration/Support.hpp"

namespace lm::testing {

TEST(QtApplication, EndsThroughTheLauncherWhateverAsksIt) {
    // Rows: the signal raised once launching finished (none: the loop ends under the launcher), and
    // whether the last resort ran.
    for (auto [signal, lastResort] : std::vector<std::pair<int, bool>>{{SIGTERM, false}, {SIGINT, false}, {SIGHUP, false}, {0, true}}) {
        platform::qt::QtMainThread mainThread;
        bool lastResortRan = false;
        platform::qt::QtApplication application(mainThread, [&] { lastResortRan = true; });
        fake::Fake fake;  // the launcher's start waits on the fake's network for ever
        platform::Platform platform{mainThread, application, fake, fake, fake, fake, fake, fake, fake, fake, fake, fake};
        auto launcher = std::make_shared<LanternmoorLauncher>(platform);
        application.setDelegate(launcher);
        mainThread.post([signal = signal] { signal ? std::raise(signal) : (QCoreApplication::exit(0), 0); });
        QObject scope;
        QTimer::singleShot(5000, &scope, [] { QCoreApplication::exit(99); });  // a loop that never ends fails
        const int status = application.run();
        EXPECT_EQ(std::tuple(status, launcher->shuttingDown, lastResortRan, fake.journal.size()), std::tuple(0, true, lastResort, 5u)) << signal;
    }
}

}  // namespace lm::testing
