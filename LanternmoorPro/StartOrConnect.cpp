#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {

using namespace std::chrono_literals;

namespace {
constexpr auto startDeadline = 18s;
constexpr auto pollPause = 180ms;
}  // namespace

Task<> LanternmoorLauncher::startOrConnect() {
    auto first = co_await probeHealth();
    if (shuttingDown) co_return;
    if (first == Health::foreign) co_return showOccupiedPort();
    if (first == Health::ours) {
        // Someone else's service of ours: use it, start nothing, touch no log.
        openBrowser();
        co_return platform_.application.terminate();
    }
    // No HTTP answer may still mean the port is held by something that does not speak it.
    if (portAcceptsConnections()) co_return showOccupiedPort();

    auto root = appRoot();
    if (!root || !platform_.files.fileExists(root->appending("server.mjs").path))
        co_return showFailure(std::string(texts::filesIncompleteTitle), std::string(texts::filesIncompleteMessage));

    auto node = co_await findNode();
    if (!node)
        co_return showPrerequisite(std::string(texts::nodeMissingTitle), std::string(texts::nodeMissingMessage));
    auto codex = findCodex();
    if (!codex)
        co_return showPrerequisite(std::string(texts::codexMissingTitle), std::string(texts::codexMissingMessage));
    if (shuttingDown) co_return;

    std::shared_ptr<platform::ChildProcess> launched;
    std::optional<Error> startError;
    if (auto dataFolder = dataFolderURL(); !dataFolder) {
        startError = Error{std::string(texts::errorDomain), 2, std::string(texts::noDataFolder), "applicationSupportFolders"};
    } else if (auto log = prepareLog(*dataFolder); !log) {
        startError = log.error();
    } else {
        logHandle = log.release();
        auto process = launchService(*node, *codex, *root, *dataFolder);
        if (process)
            launched = process.release();
        else
            startError = process.error();
    }
    if (startError) {
        co_await stopOwnedChild();
        auto support = applicationSupportFolder();
        co_return showFailure(std::string(texts::startFailedTitle),
                              startError->description + texts::startFailedAdvice(support ? support->path : homeFolderPath()));
    }

    // The deadline is looked at only here: a probe or pause begun before it is finished and
    // acted upon, so a service that answers just after the deadline still counts as started.
    const auto deadline = platform_.mainThread.now() + startDeadline;
    bool askedAgain = false;
    for (;;) {
        if (shuttingDown) co_return;
        if (platform_.mainThread.now() >= deadline) {
            co_await stopOwnedChild();
            co_return showFailure(std::string(texts::timedOutTitle), std::string(texts::timedOutMessage) + logPath());
        }
        auto answer = co_await probeHealthAnswer();
        if (shuttingDown) co_return;
        auto health = answer.health;

        // Asked of the launched process itself: ownedProcess may have been replaced meanwhile.
        const bool running = launched->isRunning();
        // Two launchers started together both launch; the service that lost the port still runs
        // for a moment while the winner's answers as ours. Only an answer from our own process
        // (or one of its group, as under a version manager's shim) is our success.
        const bool fromOurs = !answer.processIdentifier || launched->includes(*answer.processIdentifier);
        if (health == Health::ours && running && fromOurs) {
            ready = true;
            if (openItem) openItem->setEnabled(true);
            setToolTip(texts::runningToolTip);
            co_return openBrowser();
        }
        if (health == Health::ours) {
            // Another launcher's service of ours answers: hand over to it, leaving nothing of ours.
            if (running) {
                co_await stopOwnedChild();
                if (shuttingDown) co_return;
            } else {
                ownedProcess.reset();
            }
            openBrowser();
            co_return platform_.application.terminate();
        }
        if (health == Health::foreign) {
            co_await stopOwnedChild();
            co_return showOccupiedPort();
        }
        if (running) {
            co_await platform::sleepFor(platform_.mainThread, pollPause);
            continue;
        }
        ownedProcess.reset();
        if (portAcceptsConnections()) {
            // Launchers started together: ours may have lost the port to one whose service began
            // to listen just after our probe. One more probe tells a hand-over from a stranger.
            if (std::exchange(askedAgain, true)) co_return showOccupiedPort();
            continue;
        }
        co_return showFailure(std::string(texts::notStartedTitle), std::string(texts::notStartedMessage) + logPath());
    }
}

}  // namespace lm
