// The terminal surface on real pipes, driven through the launcher's own menu: answers, typed commands,
// $BROWSER. (Qt's surface is met where users meet it, on an X server: the end-to-end tests.)
#include "LanternmoorPro/platform/terminal/TerminalAlerts.hpp"
#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStatusBar.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "integration/Support.hpp"

namespace lm::testing {

using namespace platform::terminal;

struct Pipes {
    int keyboard[2], screen[2];
    Pipes() { EXPECT_EQ(::pipe2(keyboard, O_CLOEXEC) | ::pipe2(screen, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipes() { for (int end : {keyboard[0], keyboard[1], screen[0], screen[1]}) ::close(end); }
};
// A terminal whose keyboard and screen are pipes held by the test; they outlive its streams.
struct Terminal : Pipes {
    TerminalInput input{keyboard[0]};
    TerminalOutput output{screen[1]};
    void type(std::string_view text) { EXPECT_EQ(::write(keyboard[1], text.data(), text.size()), std::ssize(text)); }
    std::string printed() {
        std::string text(1 << 16, '\0');
        return text.substr(0, std::max<ssize_t>(::read(screen[0], text.data(), text.size()), 0));
    }
};

const platform::Alert prerequisite{platform::AlertStyle::informational, "请先安装 Node.js", "第一行。\n第二行。", {"查看安装说明", "退出"}};
const platform::Alert failure{platform::AlertStyle::warning, "工作区暂时不可用", "本机服务没有响应。", {"好"}};

TEST(TerminalAlerts, PrintTheAlertAndTakeTheButtonTypedAskingAgainAfterAnythingElse) {
    // Rows: the alert, what is typed, whether the input ends then, the button, how often it asks again.
    for (const auto& [alert, typed, ends, button, asked] : std::vector<std::tuple<platform::Alert, std::string, bool, std::size_t, int>>{
             {prerequisite, " 2 \r\n", false, 1, 0}, {prerequisite, "\n", false, 0, 0}, {prerequisite, "", true, 1, 0},
             {prerequisite, "ja\n0\n3\n1\n", false, 0, 3}, {prerequisite, "1", true, 0, 0}, {failure, "", true, 0, 0},
             {failure, "2\n1\n", false, 0, 1},
             {prerequisite, std::string(4096, ' ') + "2\n", false, 0, 0}}) {  // only a line's first 4 KiB count
        Terminal terminal;
        terminal.type(typed);
        if (ends) ::close(std::exchange(terminal.keyboard[1], -1));
        EXPECT_EQ(TerminalAlerts(terminal.input, terminal.output).runModal(alert), button) << typed;
        const auto printed = terminal.printed(), shown = alert.title + "\n" + alert.message + "\n" + buttonLine(alert.buttons) + "\n";
        EXPECT_EQ(std::tuple(printed.substr(0, shown.size()), std::count(printed.begin() + std::min(printed.size(), shown.size()), printed.end(), '\n')),
                  std::tuple(shown, asked));
    }
}

// Lines typed on a terminal pick the launcher's own menu entries; the launcher runs on the fake.
TEST(TerminalMenu, TypedLinesPickTheLaunchersEnabledEntries) {
    Terminal terminal;
    TerminalStatusBar bar(terminal.input, terminal.output, MenuInput::typed);
    fake::Fake fake;
    platform::Platform platform{fake, fake, fake, fake, fake, fake, fake, fake, fake, bar, fake, fake};
    auto launcher = std::make_shared<LanternmoorLauncher>(platform);
    fake.setDelegate(launcher);
    launcher->installMenu();
    EXPECT_EQ(terminal.printed(), "LM  Lanternmoor Pro · 正在启动\n");
    const auto typed = [&](const std::string& lines) {  // the data folder's entry marks the lines as read
        terminal.type(lines + "\n4\n");
        serveEventsUntil([&] { return !fake.journal.empty() && fake.journal.back().ends_with("Pro/"); });
        fake.runUntilIdle();
        std::string news;
        for (const auto& line : std::exchange(fake.journal, {})) news += line.ends_with("Pro/") ? "" : line.substr(6) + "; ";
        return news;
    };
    EXPECT_EQ(typed("o\n2\n1\n5\n7\n\nopen"), "");
    EXPECT_EQ(typed("3"), "open file:///opt/lm/share/lanternmoor-pro/%E5%AE%89%E8%A3%85%E4%B8%8E%E4%BD%BF%E7%94%A8.html; ");
    launcher->openItem->setEnabled(true);
    fake.answers = {{fake::Fake::ours()}};
    EXPECT_EQ(typed("o"), "probe http://127.0.0.1:18765/api/health; open http://127.0.0.1:18765/; ");
    EXPECT_EQ(typed(" q "), "terminate; ended; ");
}

// The convention other programs follow for $BROWSER, word by word.
TEST(TerminalOpener, ReadsTheBrowserSettingAsAListOfCommands) {
    const auto isExecutable = [](const std::string& path) { return path == "/opt/a b/browser"; };
    EXPECT_EQ(browserCommands("firefox --new-tab:/b/open %s 100%%: :/opt/a b/browser:/opt/a b/browser %s", "http://h/", isExecutable),
              (std::vector<Strings>{{"firefox", "--new-tab", "http://h/"}, {"/b/open", "http://h/", "100%"}, {"/opt/a b/browser", "http://h/"},
                                    {"/opt/a", "b/browser", "http://h/"}}));
}

// On real processes: the first command that starts wins, and opening fails only when none does.
TEST(TerminalOpener, StartsTheFirstBrowserCommandThatStartsAndFailsWhenNoneDoes) {
    TemporaryFolder folder;
    const auto browser = writeFile(folder / "a b/browser", "#!/bin/sh\necho \"$@\" > \"$0.opened\"\n", 0755);
    const std::string url = "http://127.0.0.1:18765/";
    // Rows: the setting, whether opening succeeds, and the arguments the browser got.
    for (const auto& [setting, opens, arguments] : std::vector<std::tuple<std::string, bool, std::string>>{
             {browser, true, url},                                            // a path with a blank, as it stands
             {folder / "missing --new-tab:" + browser + ":/bin/false", true, url},  // the first that starts
             {"/missing/one:/missing/two %s", false, ""},
             {"", true, ""}}) {                                               // no browser: the address is printed only
        SCOPED_TRACE(setting);
        std::filesystem::remove(browser + ".opened");
        Terminal terminal;
        platform::posix::PosixProcesses processes;
        platform::posix::PosixFileSystem files;
        EXPECT_EQ(TerminalOpener(terminal.output, processes, files, setting).open(url), opens);
        EXPECT_EQ(terminal.printed(), "→ " + url + "\n");
        const auto given = arguments + "\n";
        EXPECT_TRUE(arguments.empty() || serveEventsUntil([&] { return readFile(browser + ".opened") == given; }));
    }
}

}  // namespace lm::testing
