#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

using namespace std::chrono_literals;

namespace {
constexpr int gracePolls = 30;
constexpr auto gracePause = 100ms;
}  // namespace

void LanternmoorLauncher::childExited(std::int32_t processIdentifier) {
    // Only an unexpected end of our own ready service is news; the start sequence watches the
    // process itself before that, and the quit path caused the end itself.
    if (!ready || shuttingDown || failurePresented) return;
    if (!ownedProcess || ownedProcess->processIdentifier() != processIdentifier) return;
    ready = false;
    if (openItem) openItem->setEnabled(false);
    setToolTip(texts::stoppedToolTip);
    showFailure(std::string(texts::stoppedTitle), std::string(texts::stoppedMessage) + logPath());
}

Task<> LanternmoorLauncher::stopOwnedChild() {
    if (!ownedProcess) co_return;
    // The one signalled, even if ownedProcess changes while we wait.
    auto process = ownedProcess;
    if (process->isRunning()) {
        process->terminate();
        for (int poll = 0; poll < gracePolls && process->isRunning(); ++poll)
            co_await platform::sleepFor(platform_.mainThread, gracePause);
        if (process->isRunning()) process->kill();
    }
    ownedProcess.reset();
    if (logHandle) {
        (void)logHandle->close();  // nothing to tell anyone: the service's output is already in
        logHandle.reset();
    }
}

void LanternmoorLauncher::quitFromMenu() { platform_.application.terminate(); }

platform::TerminateReply LanternmoorLauncher::applicationShouldTerminate() {
    // Quitting is never refused; a second request while the first still waits ends at once.
    if (shuttingDown) return platform::TerminateReply::now;
    shuttingDown = true;
    if (!ownedProcess || !ownedProcess->isRunning()) return platform::TerminateReply::now;
    spawn(stopAndReply());
    return platform::TerminateReply::later;
}

Task<> LanternmoorLauncher::stopAndReply() {
    co_await stopOwnedChild();
    platform_.application.replyToApplicationShouldTerminate(true);
}

void LanternmoorLauncher::applicationWillTerminate() {
    // Only reached with a live service when a second request cut the stop task short, after
    // SIGTERM and some of its grace: the process ends now, and nothing it started survives it.
    if (ownedProcess && ownedProcess->isRunning()) ownedProcess->kill();
    if (logHandle) (void)logHandle->close();
}

}  // namespace lm
