// The terminal surface on real pipes: what it prints, how typed answers and commands are
// read, and the $BROWSER program it starts.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"
#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"
#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"
#include "integration/SurfaceHarness.hpp"

namespace lm::testing {
namespace {

using platform::Alerts;
using namespace platform::terminal;

// Serves the event loop until `done` holds or about two seconds have passed; whether it held.
bool serveEventsUntil(const std::function<bool()>& done) {
    for (int round = 0; round < 1000 && !done(); ++round) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

struct Pipes {
    int keyboard[2] = {-1, -1}, screen[2] = {-1, -1};
    Pipes() { EXPECT_EQ(::pipe2(keyboard, O_CLOEXEC) | ::pipe2(screen, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipes() { for (int end : {keyboard[0], keyboard[1], screen[0], screen[1]}) ::close(end); }
};

// A terminal whose keyboard and screen are pipes held by the test; they outlive its streams.
struct Terminal : Pipes {
    TerminalInput input{keyboard[0]};
    TerminalOutput output{screen[1]};

    void type(std::string_view text) { EXPECT_EQ(::write(keyboard[1], text.data(), text.size()), std::ssize(text)); }
    static void hangUp(int& end) { ::close(std::exchange(end, -1)); }
    // Everything printed since the last call.
    std::string printed() {
        std::string text;
        char chunk[4096];
        for (ssize_t got; (got = ::read(screen[0], chunk, sizeof chunk)) > 0;) text.append(chunk, got);
        return text;
    }
};

struct Shown { platform::Alert alert; std::string printed; };
const Shown prerequisite{{platform::AlertStyle::informational, "请先安装 Node.js", "第一行。\n第二行。", {"查看安装说明", "退出"}},
                         "请先安装 Node.js\n第一行。\n第二行。\n[1] 查看安装说明  [2] 退出\n"};
const Shown failure{{platform::AlertStyle::warning, "工作区暂时不可用", "本机服务没有响应。", {"好"}},
                    "工作区暂时不可用\n本机服务没有响应。\n[1] 好\n"};

TEST(TerminalAlerts, PrintTheAlertAndAnswerWithTheButtonTypedAskingAgainAfterAnythingElse) {
    // Rows: what, the alert, what is typed, whether the input then ends, the answer, how
    // often the alert asks again.
    const std::vector<std::tuple<const char*, const Shown&, std::string, bool, int, std::size_t>> rows = {
        {"a number picks its button", prerequisite, "2\n", false, Alerts::firstButton + 1, 0},
        {"blanks around the number do not matter", prerequisite, " 2 \r\n", false, Alerts::firstButton + 1, 0},
        {"an empty line picks the first", prerequisite, "\n", false, Alerts::firstButton, 0},
        {"end of input picks the last", prerequisite, "", true, Alerts::firstButton + 1, 0},
        {"words, zero and numbers past the last ask again", prerequisite, "ja\n0\n3\n-1\n1\n", false, Alerts::firstButton, 4},
        {"end of input after a bad answer picks the last", prerequisite, "x\n", true, Alerts::firstButton + 1, 1},
        {"a number cut off by the end of input still counts", prerequisite, "1", true, Alerts::firstButton, 0},
        {"one button: an empty line", failure, "\n", false, Alerts::firstButton, 0},
        {"one button: end of input", failure, "", true, Alerts::firstButton, 0},
        {"one button: its number after a wrong one", failure, "2\n1\n", false, Alerts::firstButton, 1},
    };
    for (const auto& [name, shown, typed, endOfInput, expected, prompts] : rows) {
        SCOPED_TRACE(name);
        Terminal terminal;
        terminal.type(typed);
        if (endOfInput) Terminal::hangUp(terminal.keyboard[1]);

        EXPECT_EQ(TerminalAlerts(terminal.input, terminal.output).runModal(shown.alert), expected);
        const auto printed = terminal.printed();
        ASSERT_EQ(printed.substr(0, shown.printed.size()), shown.printed);
        std::istringstream asked(printed.substr(shown.printed.size()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(asked, line);) lines.push_back(line);
        ASSERT_EQ(lines.size(), prompts);
        for (const auto& line : lines) EXPECT_TRUE(!line.empty() && line == lines.front()) << line;
    }
}

TEST(TerminalTypedMenu, PicksEnabledEntriesByKeyOrNumberWhileNoAlertWaitsUntilTheInputEnds) {
    Terminal terminal;
    TerminalStatusBar statusBar{terminal.input, terminal.output, MenuInput::typed};
    auto target = std::make_shared<RecordingTarget>();
    const auto [item, openItem] = installLikeTheLauncher(statusBar, target);
    // The guide's number follows each line as a marker: once it has come through, a line
    // that did nothing is known to have been read.
    const auto performedFor = [&](const std::string& line) {
        target->performed.clear();
        terminal.type(line + "\n3\n");
        EXPECT_TRUE(serveEventsUntil([&] { return !target->performed.empty() && target->performed.back() == MenuAction::openGuide; }));
        auto performed = target->performed;
        if (!performed.empty()) performed.pop_back();
        return performed;
    };
    // Rows: what is typed, whether the open entry is enabled, what it does.
    const std::vector<std::tuple<std::string, bool, std::vector<MenuAction>>> rows = {
        {"o", true, {MenuAction::openFromMenu}}, {"2", true, {MenuAction::openFromMenu}},
        {"o", false, {}},                        {"2", false, {}},
        {"3", false, {MenuAction::openGuide}},   {"4", false, {MenuAction::openData}},
        {" q ", false, {MenuAction::quitFromMenu}}, {"6", false, {MenuAction::quitFromMenu}},
        {"1", true, {}}, {"5", true, {}}, {"7", true, {}}, {"", true, {}}, {"open", true, {}},
    };
    for (const auto& [typed, openEnabled, expected] : rows) {
        SCOPED_TRACE("typed \"" + typed + "\"");
        openItem->setEnabled(openEnabled);
        EXPECT_EQ(performedFor(typed), expected);
    }
    item->button()->setToolTip("Lanternmoor Pro · 服务已停止");
    EXPECT_EQ(terminal.printed(), "LM  " + startingToolTip + "\nLM  Lanternmoor Pro · 服务已停止\n");

    TerminalAlerts alerts(terminal.input, terminal.output);
    terminal.type("2\n");
    EXPECT_EQ(alerts.runModal(prerequisite.alert), Alerts::firstButton + 1);
    EXPECT_EQ(performedFor("o"), std::vector{MenuAction::openFromMenu});

    target.reset();
    terminal.type("o\n3\n4\nq\n");
    Terminal::hangUp(terminal.keyboard[1]);
    for (int round = 0; round < 5; ++round) QCoreApplication::processEvents();
    // Alerts that can be neither answered nor seen still end, as their last button.
    Terminal::hangUp(terminal.screen[0]);
    platform::posix::ignoreStreamSignals();
    EXPECT_EQ(alerts.runModal(prerequisite.alert), Alerts::firstButton + 1);
    EXPECT_EQ(alerts.runModal(failure.alert), Alerts::firstButton);
}

TEST(TerminalOpener, PrintsTheURLAndRunsTheBrowserWithItFailingOnlyWhenItCannotStart) {
    const std::string workspace = "http://127.0.0.1:18765/";
    QTemporaryDir folder;
    const auto path = [&folder](const char* name) { return folder.filePath(name).toStdString(); };
    const auto record = path("record");
    std::ofstream(path("browser")) << "#!/bin/sh\n{ echo \"$#\"; printf '%s\\n' \"$@\"; readlink /proc/self/fd/0; } > '"
                                   << record << ".part'\nmv '" << record << ".part' '" << record << "'\n";
    ::chmod(path("browser").c_str(), 0700);
    std::ofstream(path("not-executable")) << "#!/bin/sh\n";
    const std::vector<std::pair<std::optional<std::string>, bool>> rows = {
        {std::nullopt, true}, {"", true}, {path("browser"), true}, {path("missing"), false}, {path("not-executable"), false}};
    for (const auto& [browser, opened] : rows) {
        SCOPED_TRACE(browser.value_or("unset"));
        Terminal terminal;
        platform::posix::PosixProcesses processes;
        EXPECT_EQ(TerminalOpener(terminal.output, processes, browser).open(workspace), opened);
        EXPECT_EQ(terminal.printed(), "→ " + workspace + "\n");
    }
    ASSERT_TRUE(serveEventsUntil([&] { return ::access(record.c_str(), F_OK) == 0; }));
    std::ifstream recorded(record);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(recorded), {}), "1\n" + workspace + "\n/dev/null\n");
    // WNOWAIT looks for a child left unreaped without reaping it.
    EXPECT_TRUE(serveEventsUntil([] {
        siginfo_t exited = {};
        return ::waitid(P_ALL, 0, &exited, WEXITED | WNOHANG | WNOWAIT) != 0 || exited.si_pid == 0;
    }));
}

}  // namespace
}  // namespace lm::testing
