// The program's entry: the only place that chooses the real platform and its surface.
#include <QApplication>
#include <QCoreApplication>
#include <cstdlib>
#include <unistd.h>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"
#include "LanternmoorPro/platform/qt/QtAlerts.hpp"
#include "LanternmoorPro/platform/qt/QtApplication.hpp"
#include "LanternmoorPro/platform/qt/QtHttp.hpp"
#include "LanternmoorPro/platform/qt/QtJson.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "LanternmoorPro/platform/qt/QtOpener.hpp"
#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"
#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"
#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"

namespace {

using namespace lm::platform;

// Everything but the surface. Made once the Qt application exists, since the main thread is
// the one that owns it.
struct Backend {
    qt::QtMainThread mainThread;
    qt::QtApplication application;
    posix::PosixProcesses processes;
    posix::PosixFileSystem files;
    qt::QtHttp http;
    qt::QtJson json;
    posix::PosixNetwork network;
    posix::PosixEnvironment environment;
    posix::PosixFolders folders{environment};

    int run(Opener& opener, Alerts& alerts, StatusBar& statusBar) {
        Platform platform{mainThread, application, processes, files,        http,      json,
                          network,    opener,      alerts,    statusBar,    environment, folders};
        return lm::runLauncher(platform);
    }
};

bool hasDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

int runOnDesktop(int& argc, char** argv) {
    QApplication qtApplication(argc, argv);
    Backend backend;
    qt::QtOpener opener;
    qt::QtAlerts alerts;
    qt::QtStatusBar statusBar;
    return backend.run(opener, alerts, statusBar);
}

int runInTerminal(int& argc, char** argv) {
    posix::ignoreTerminalStreamSignals();
    QCoreApplication qtApplication(argc, argv);
    Backend backend;
    terminal::TerminalInput input(STDIN_FILENO);
    terminal::TerminalOutput output(STDOUT_FILENO);
    terminal::TerminalAlerts alerts(input, output);
    // Typed commands only make sense when someone types; piped input is kept for the alerts.
    const auto menuInput = ::isatty(STDIN_FILENO) ? terminal::MenuInput::typed : terminal::MenuInput::none;
    terminal::TerminalStatusBar statusBar(input, output, menuInput);
    terminal::TerminalOpener opener(output, backend.environment.variable("BROWSER"));
    return backend.run(opener, alerts, statusBar);
}

}  // namespace

int main() {
    // The launcher reads no arguments, and Qt is given none to read either.
    static char programName[] = "lanternmoor-pro";
    char* qtArguments[] = {programName, nullptr};
    int qtArgumentCount = 1;
    return hasDisplay() ? runOnDesktop(qtArgumentCount, qtArguments) : runInTerminal(qtArgumentCount, qtArguments);
}
