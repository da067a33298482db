// The program's entry: the only place that chooses the real platform and its surface.
#include <QApplication>
#include <QCoreApplication>
#include <unistd.h>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/Displays.hpp"
#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"
#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"
#include "LanternmoorPro/platform/qt/QtAlerts.hpp"
#include "LanternmoorPro/platform/qt/QtApplication.hpp"
#include "LanternmoorPro/platform/qt/QtHttp.hpp"
#include "LanternmoorPro/platform/qt/QtJson.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "LanternmoorPro/platform/qt/QtOpener.hpp"
#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"
#include "LanternmoorPro/platform/qt/Utf8.hpp"
#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"
#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"

namespace {

using namespace lm::platform;

// Everything but the surface. Made once the Qt application exists, since the main thread is
// the one that owns it.
struct Backend {
    qt::QtMainThread mainThread;
    // After the main thread, so it goes first and no late report is posted to a gone loop.
    posix::PosixProcesses processes;
    qt::QtApplication application{mainThread, [this] { processes.stopAll(); }};
    posix::PosixFileSystem files;
    qt::QtHttp http;
    qt::QtJson json;
    posix::PosixNetwork network;
    posix::PosixEnvironment environment;
    posix::PosixFolders folders{environment, qt::utf8(QCoreApplication::applicationDirPath())};

    int run(Opener& opener, Alerts& alerts, StatusBar& statusBar) {
        Platform platform{mainThread, application, processes, files,        http,      json,
                          network,    opener,      alerts,    statusBar,    environment, folders};
        return lm::runLauncher(platform);
    }
};

int runOnDesktop(int& argc, char** argv) {
    QApplication qtApplication(argc, argv);
    QGuiApplication::setDesktopFileName(QStringLiteral("lanternmoor-pro"));
    Backend backend;
    qt::QtOpener opener;
    qt::QtAlerts alerts;
    qt::QtStatusBar statusBar;
    return backend.run(opener, alerts, statusBar);
}

int runInTerminal(int& argc, char** argv) {
    QCoreApplication qtApplication(argc, argv);
    Backend backend;
    terminal::TerminalInput input(STDIN_FILENO);
    terminal::TerminalOutput output(STDOUT_FILENO);
    terminal::TerminalAlerts alerts(input, output);
    // Typed commands only make sense when someone types; piped input is kept for the alerts.
    const auto menuInput = ::isatty(STDIN_FILENO) ? terminal::MenuInput::typed : terminal::MenuInput::none;
    terminal::TerminalStatusBar statusBar(input, output, menuInput);
    terminal::TerminalOpener opener(output, backend.processes, backend.files, backend.environment.variable("BROWSER"));
    return backend.run(opener, alerts, statusBar);
}

}  // namespace

int main() {
    posix::ensureStandardDescriptors();
    posix::ignoreStreamSignals();
    // The launcher reads no arguments, and Qt is given none to read either.
    static char programName[] = "lanternmoor-pro";
    char* qtArguments[] = {programName, nullptr};
    int qtArgumentCount = 1;
    // A display that is named but cannot be opened is no display: Qt would abort on it.
    const auto displays = posix::usableDisplays();
    if (!displays.any()) return runInTerminal(qtArgumentCount, qtArguments);
    if (const char* platform = displays.qtPlatform(); platform != nullptr && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", platform);
    }
    return runOnDesktop(qtArgumentCount, qtArguments);
}
