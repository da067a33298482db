// The terminal surface on real pipes: what it prints, how typed answers and commands are
// read, and the $BROWSER program it starts.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <cctype>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "LanternmoorPro/platform/posix/TerminationSignals.hpp"
#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"
#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"
#include "integration/SurfaceHarness.hpp"

namespace lm::testing {
namespace {

using platform::Alert;
using platform::AlertStyle;
using platform::Alerts;
using namespace platform::terminal;

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) == 0) std::tie(readEnd, writeEnd) = std::tie(ends[0], ends[1]);
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() { ::close(std::exchange(readEnd, -1)); }
    void closeWrite() { ::close(std::exchange(writeEnd, -1)); }
};

// A terminal whose keyboard and screen are pipes held by the test.
class Terminal {
public:
    Pipe keyboard;
    Pipe screen;
    TerminalInput input{keyboard.readEnd};
    TerminalOutput output{screen.writeEnd};

    Terminal() { ::fcntl(screen.readEnd, F_SETFL, O_NONBLOCK); }

    void type(std::string_view text) { ASSERT_EQ(::write(keyboard.writeEnd, text.data(), text.size()), std::ssize(text)); }
    // Everything printed since the last call.
    std::string printed() {
        std::string text;
        char chunk[4096];
        ssize_t got = 0;
        while ((got = ::read(screen.readEnd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<std::size_t>(got));
        return text;
    }
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

const Alert prerequisite{AlertStyle::informational, "请先安装 Node.js", "第一行。\n第二行。", {"查看安装说明", "退出"}};
const Alert failure{AlertStyle::warning, "工作区暂时不可用", "本机服务没有响应。", {"好"}};

// ---- alerts ---------------------------------------------------------------------------------

TEST(TerminalAlerts, PrintTitleMessageLinesAndNumberedButtonsThenNothingMoreOnAGoodAnswer) {
    Terminal terminal;
    TerminalAlerts alerts(terminal.input, terminal.output);
    terminal.type("1\n");
    alerts.runModal(prerequisite);
    EXPECT_EQ(terminal.printed(), "请先安装 Node.js\n第一行。\n第二行。\n[1] 查看安装说明  [2] 退出\n");

    terminal.type("\n");
    alerts.runModal(failure);
    EXPECT_EQ(terminal.printed(), "工作区暂时不可用\n本机服务没有响应。\n[1] 好\n");
}

TEST(TerminalAlerts, AnswerWithTheButtonTypedAndAskAgainAfterAnythingElse) {
    struct Row {
        const char* name;
        const Alert& alert;
        std::string typed;
        bool endOfInput;
        int expected;
        std::size_t prompts;
    };
    const std::vector<Row> rows = {
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
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Terminal terminal;
        TerminalAlerts alerts(terminal.input, terminal.output);
        terminal.type(row.typed);
        if (row.endOfInput) terminal.keyboard.closeWrite();

        EXPECT_EQ(alerts.runModal(row.alert), row.expected);
        const auto lines = linesOf(terminal.printed());
        const auto presentation = 2 + linesOf(row.alert.message).size();
        ASSERT_EQ(lines.size(), presentation + row.prompts);
        for (std::size_t index = presentation; index < lines.size(); ++index) {
            EXPECT_FALSE(lines[index].empty());
            EXPECT_EQ(lines[index], lines.back());
        }
    }
}

TEST(TerminalAlerts, ThatCannotBeAnsweredCountAsTheirLastButton) {
    Terminal terminal;
    TerminalAlerts alerts(terminal.input, terminal.output);
    terminal.keyboard.closeWrite();
    terminal.screen.closeRead();
    platform::posix::ignoreTerminalStreamSignals();

    EXPECT_EQ(alerts.runModal(prerequisite), Alerts::firstButton + 1);
    EXPECT_EQ(alerts.runModal(failure), Alerts::firstButton);
}

// ---- status item and typed menu -------------------------------------------------------------

TEST(TerminalStatus, PrintsTheTitleAndEachToolTipItIsGiven) {
    Terminal terminal;
    TerminalStatusBar statusBar(terminal.input, terminal.output, MenuInput::none);
    auto installed = installLikeTheLauncher(statusBar, std::make_shared<RecordingTarget>());
    installed.statusItem->button()->setToolTip(runningToolTip);
    installed.statusItem->button()->setToolTip(stoppedToolTip);

    EXPECT_EQ(terminal.printed(), "LM  " + startingToolTip + "\nLM  " + runningToolTip + "\nLM  " + stoppedToolTip + "\n");
}

class TerminalTypedMenu : public ::testing::Test {
protected:
    Terminal terminal;
    TerminalStatusBar statusBar{terminal.input, terminal.output, MenuInput::typed};
    std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
    InstalledMenu installed = installLikeTheLauncher(statusBar, target);

    // Types the line, then the guide's number as a marker, and waits for the marker to come
    // through, so a line that does nothing is known to have been read.
    std::vector<MenuAction> performedFor(const std::string& line) {
        target->performed.clear();
        terminal.type(line + "\n3\n");
        const bool served = serveEventsUntil(
            [this] { return !target->performed.empty() && target->performed.back() == MenuAction::openGuide; });
        EXPECT_TRUE(served);
        auto performed = target->performed;
        if (!performed.empty()) performed.pop_back();
        return performed;
    }
};

TEST_F(TerminalTypedMenu, TypedKeysAndNumbersPickTheirEntriesAndDisabledOnesDoNothing) {
    struct Row {
        std::string typed;
        bool openEnabled;
        std::vector<MenuAction> expected;
    };
    const std::vector<Row> rows = {
        {"o", true, {MenuAction::openFromMenu}},
        {"2", true, {MenuAction::openFromMenu}},
        {"o", false, {}},
        {"2", false, {}},
        {"3", false, {MenuAction::openGuide}},
        {"4", false, {MenuAction::openData}},
        {" q ", false, {MenuAction::quitFromMenu}},
        {"6", false, {MenuAction::quitFromMenu}},
        {"1", true, {}},
        {"5", true, {}},
        {"7", true, {}},
        {"", true, {}},
        {"open", true, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("typed \"" + row.typed + "\"");
        installed.openItem->setEnabled(row.openEnabled);
        EXPECT_EQ(performedFor(row.typed), row.expected);
    }
    EXPECT_EQ(terminal.printed(), "LM  " + startingToolTip + "\n");
}

TEST_F(TerminalTypedMenu, StandsAsideWhileAnAlertTakesItsAnswer) {
    installed.openItem->setEnabled(true);
    TerminalAlerts alerts(terminal.input, terminal.output);
    terminal.type("2\n");

    EXPECT_EQ(alerts.runModal(prerequisite), Alerts::firstButton + 1);
    EXPECT_EQ(performedFor("o"), std::vector<MenuAction>{MenuAction::openFromMenu});
}

TEST_F(TerminalTypedMenu, EndOfInputStopsTheReaderAndLeavesAlertsTheirLastButton) {
    terminal.keyboard.closeWrite();
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    TerminalAlerts alerts(terminal.input, terminal.output);

    EXPECT_EQ(alerts.runModal(prerequisite), Alerts::firstButton + 1);
    EXPECT_TRUE(target->performed.empty());
}

TEST_F(TerminalTypedMenu, OfAGoneTargetDoesNothing) {
    installed.openItem->setEnabled(true);
    target.reset();
    terminal.type("o\n3\n4\nq\n");
    for (int round = 0; round < 5; ++round) QCoreApplication::processEvents();
    SUCCEED();
}

// ---- opening URLs ---------------------------------------------------------------------------

const std::string workspace = "http://127.0.0.1:18765/";

std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool hasZombieChild() {
    const std::string parent = std::to_string(::getpid());
    auto* processes = ::opendir("/proc");
    bool found = false;
    while (auto* entry = ::readdir(processes)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        // The fields after the command name, which is the one that may hold blanks.
        const auto stat = contentsOf(std::string("/proc/") + entry->d_name + "/stat");
        const auto afterName = stat.rfind(')');
        if (afterName == std::string::npos) continue;
        std::istringstream fields(stat.substr(afterName + 1));
        std::string state, parentId;
        fields >> state >> parentId;
        if (parentId == parent && state == "Z") found = true;
    }
    ::closedir(processes);
    return found;
}

TEST(TerminalOpener, PrintsTheURLAndWithoutABrowserSaysItWorked) {
    for (const std::optional<std::string>& browser : {std::optional<std::string>{}, std::optional<std::string>{""}}) {
        Terminal terminal;
        TerminalOpener opener(terminal.output, browser);
        EXPECT_TRUE(opener.open(workspace));
        EXPECT_EQ(terminal.printed(), "→ " + workspace + "\n");
    }
}

TEST(TerminalOpener, StartsTheBrowserWithTheURLAloneAndNothingOfOursOnItsInput) {
    QTemporaryDir folder;
    const auto script = folder.filePath("browser").toStdString();
    const auto record = folder.filePath("record").toStdString();
    std::ofstream(script) << "#!/bin/sh\n{ echo \"$#\"; printf '%s\\n' \"$@\"; readlink /proc/self/fd/0; } > '"
                          << record << ".part'\nmv '" << record << ".part' '" << record << "'\n";
    ::chmod(script.c_str(), 0700);
    Terminal terminal;
    TerminalOpener opener(terminal.output, script);

    EXPECT_TRUE(opener.open(workspace));
    EXPECT_EQ(terminal.printed(), "→ " + workspace + "\n");
    ASSERT_TRUE(serveEventsUntil([&] { return ::access(record.c_str(), F_OK) == 0; }));
    EXPECT_EQ(contentsOf(record), "1\n" + workspace + "\n/dev/null\n");
    EXPECT_TRUE(serveEventsUntil([] { return !hasZombieChild(); }));
}

TEST(TerminalOpener, FailsWhenTheBrowserCannotBeStarted) {
    QTemporaryDir folder;
    const auto notExecutable = folder.filePath("browser").toStdString();
    std::ofstream(notExecutable) << "#!/bin/sh\n";
    for (const auto& browser : {folder.filePath("missing").toStdString(), notExecutable}) {
        SCOPED_TRACE(browser);
        Terminal terminal;
        TerminalOpener opener(terminal.output, browser);
        EXPECT_FALSE(opener.open(workspace));
        EXPECT_EQ(terminal.printed(), "→ " + workspace + "\n");
    }
}

}  // namespace
}  // namespace lm::testing
