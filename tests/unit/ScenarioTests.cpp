// The launcher's behaviour as tables of situations and the journal each one leads to, second by
// second: the start, the service's end and the launcher's, and what the user does and sees.
#include <regex>

#include "Harness.hpp"

namespace lm::test {

const std::string url = "http://127.0.0.1:18765/", probe = " probe http://127.0.0.1:18765/api/health";
const std::string guide = "file:///opt/lm/share/lanternmoor-pro/%E5%AE%89%E8%A3%85%E4%B8%8E%E4%BD%BF%E7%94%A8.html";
const std::string menu = "0.000 menu; 0.000 disable Lanternmoor Pro · 本机工作区; 0.000 disable 打开研究工作区";
const std::string begun = "0.000 tooltip Lanternmoor Pro · 正在启动; " + menu;
const std::string checked = begun + "; 0.000 port check 18765";
// Node.js answers in 20 ms, then the service (pid 4001) is launched.
const std::string searched = checked + "; 0.000 start /usr/bin/node --version; 0.020 exit 4000 0";
const std::string launched = searched + "; 0.020 start /usr/bin/node --experimental-strip-types";
const std::string ready = launched + "; 0.020 enable 打开研究工作区; 0.020 tooltip Lanternmoor Pro · 正在本机运行; 0.020 open " + url;
const std::string holding = " | owns the service | holds the log";  // kept once the service was ready
std::string refused(const std::string& at, const std::string& title) { return at + " alert " + title + "; " + at + " terminate; " + at + " ended"; }
void quit(Harness& h) { h.launcher->quitFromMenu(); }
void serviceEnds(Harness& h) { h.fake.children.at(1)->exit(1); }

const auto byName = [](const auto& info) { return std::string(info.param.name); };
// Rows of the menu's own doings start with it installed and nothing launched, and journal the probes.
std::vector<Scenario> fromTheMenu(std::vector<Scenario> rows) {
    for (auto& row : rows) row.launches = false;
    return rows;
}

class Launch : public testing::TestWithParam<Scenario> {};

TEST_P(Launch, LeadsToItsJournal) {
    Harness h;
    const auto& row = GetParam();
    if (!row.launches) h.launcher->installMenu();
    row.arrange(h);
    row.launches ? h.launch() : h.fake.runUntilIdle();
    // What the launcher still holds at the end follows the journal.
    const auto held = std::string(h.launcher->ownedProcess ? " | owns the service" : "") + (h.launcher->logHandle ? " | holds the log" : "");
    EXPECT_EQ(h.journal(!row.launches) + held, (row.launches ? "" : begun) + row.journal);
}

INSTANTIATE_TEST_SUITE_P(Start, Launch, testing::Values(
    Scenario{"ServiceOfOursAlreadyAnswers", [](Harness& h) { h.fake.answers = {{Fake::ours()}}; },
             begun + "; 0.000 open " + url + "; 0.000 terminate; 0.000 ended"},
    Scenario{"ForeignAnswer", [](Harness& h) { h.fake.answers = {{HttpResult::reply(200, "{}")}}; }, begun + "; " + refused("0.000", "本机地址已被其他程序占用")},
    Scenario{"SilentListener", [](Harness& h) { h.fake.accepting = true; }, checked + "; " + refused("0.000", "本机地址已被其他程序占用")},
    Scenario{"NoServiceScript", [](Harness& h) { h.fake.files.erase(*h.fake.resources + "/app/server.mjs"); },
             checked + "; " + refused("0.000", "应用文件不完整")},
    Scenario{"NodeTooOld", [](Harness& h) { h.fake.scripts[node + " --version"].output = "v22.12.1"; },
             searched + "; 0.020 alert 请先安装 Node.js; 0.020 open " + guide + "; 0.020 terminate; 0.020 ended"},
    Scenario{"NodeAndCodexMissing", [](Harness& h) { h.fake.files.erase(node), h.fake.files.erase(codex), h.fake.answer = 1; },
             checked + "; " + refused("0.000", "请先安装 Node.js")},
    Scenario{"CodexMissing", [](Harness& h) { h.fake.files.erase(codex), h.fake.answer = 1; },
             searched + "; " + refused("0.020", "请先安装并登录 Codex")},
    Scenario{"LogCannotBeCreated", [](Harness& h) { h.fake.logFailure = platform::Error{}; }, searched + "; " + refused("0.020", "无法启动 Lanternmoor Pro")},
    // Owned before it starts, so a failed start is cleaned up: the log closes, nothing is signalled.
    Scenario{"ServiceCannotStart", [](Harness& h) { h.service().startError = platform::Error{}; },
             searched + "; 0.020 close server.log; " + refused("0.020", "无法启动 Lanternmoor Pro")},
    // Eighteen seconds after the launch it is stopped, one 100 ms pause later the notice.
    Scenario{"NeverAnswers", [](Harness&) {},
             launched + "; 18.020 SIGTERM 4001; 18.020 exit 4001 143; 18.120 close server.log; " + refused("18.120", "工作区启动超时")},
    // A probe begun just before the deadline that answers as ours after it is a success.
    Scenario{"AnswersJustAfterTheDeadline",
             [](Harness& h) {
                 for (int i = 0; i < 16; ++i) h.fake.answers.push_back({HttpResult::failed(), 1s});
                 h.fake.answers.push_back({Fake::ours(), 1s});
             },
             begun + "; 1.000 port check 18765; 1.000 start /usr/bin/node --version; 1.020 exit 4000 0; 1.020 start /usr/bin/node "
                     "--experimental-strip-types; 19.720 enable 打开研究工作区; 19.720 tooltip Lanternmoor Pro · 正在本机运行; 19.720 open " + url + holding},
    // Ended at once with the port free: the log stays open until the last call closes it.
    Scenario{"ExitsAtOnce", [](Harness& h) { h.service().exitAfter = 50ms; },
             launched + "; 0.070 exit 4001 0; 0.200 port check 18765; 0.200 alert 工作区没有启动成功; 0.200 terminate; 0.200 close server.log; 0.200 ended | holds the log"},
    Scenario{"ExitsWhileThePortIsTaken",
             [](Harness& h) { h.service().exitAfter = 50ms, h.at(60ms, [](Harness& h) { h.fake.accepting = true; }); },
             launched + "; 0.070 exit 4001 0; 0.200 port check 18765; 0.200 port check 18765; 0.200 alert 本机地址已被其他程序占用; 0.200 terminate; 0.200 close server.log; 0.200 ended | holds the log"},
    Scenario{"SomeoneElseAnswersDuringTheWait", [](Harness& h) { h.fake.answers = {{}, {}, {HttpResult::reply(404, "")}}; },
             launched + "; 0.200 SIGTERM 4001; 0.200 exit 4001 143; 0.300 close server.log; " + refused("0.300", "本机地址已被其他程序占用")},
    // A version manager's shim runs the real node as its child, inside the launched group.
    Scenario{"AnswerNamesAProcessOfOurGroup", [](Harness& h) { h.service().group = {5000}, h.serviceAnswers(R"(,"pid":5000)"); }, ready + holding},
    // Two launchers started together: ours lost the port and still runs while the winner's service
    // answers. Ours is stopped, the browser opened on the winner's.
    Scenario{"AnotherLaunchersServiceAnswers", [](Harness& h) { h.serviceAnswers(R"(,"pid":7)"); },
             launched + "; 0.020 SIGTERM 4001; 0.020 exit 4001 143; 0.120 close server.log; 0.120 open " + url + "; 0.120 terminate; 0.120 ended"},
    // Ours lost the port to another launcher's service, which began to listen just after our probe:
    // asked once more, it answers as ours. Hand over without signalling anything.
    Scenario{"OursEndedAndAnotherAnswersWhenAskedAgain",
             [](Harness& h) {
                 h.service().exitAfter = 10ms, h.at(50ms, [](Harness& h) { h.fake.accepting = true; });
                 h.fake.answers = {{}, {HttpResult::failed(), 100ms}, {Fake::ours(), 100ms}};
             },
             launched + "; 0.030 exit 4001 0; 0.120 port check 18765; 0.220 open " + url + "; 0.220 terminate; 0.220 close server.log; 0.220 ended | holds the log"}), byName);

INSTANTIATE_TEST_SUITE_P(End, Launch, testing::Values(
    Scenario{"QuitWithAServiceThatObeys", [](Harness& h) { h.serviceAnswers(), h.at(1s, quit); },
             ready + "; 1.000 terminate; 1.000 SIGTERM 4001; 1.000 exit 4001 143; 1.100 close server.log; 1.100 reply yes; 1.100 ended"},
    Scenario{"QuitWithAServiceDeafToSigterm", [](Harness& h) { h.service().deafToSigterm = true, h.serviceAnswers(), h.at(1s, quit); },
             ready + "; 1.000 terminate; 1.000 SIGTERM 4001; 4.000 SIGKILL 4001; 4.000 exit 4001 137; 4.000 close server.log; 4.000 reply yes; 4.000 ended"},
    // The second request ends the launcher at once; its last call ends the deaf service.
    Scenario{"ASecondQuitDuringTheGrace",
             [](Harness& h) { h.service().deafToSigterm = true, h.serviceAnswers(), h.at(1s, quit), h.at(2s, quit); },
             ready + "; 1.000 terminate; 1.000 SIGTERM 4001; 2.000 terminate; 2.000 SIGKILL 4001; 2.000 exit 4001 137; 2.000 close server.log; 2.000 ended"},
    Scenario{"TheServiceEndsByItself", [](Harness& h) { h.serviceAnswers(), h.at(1s, serviceEnds); },
             ready + "; 1.000 exit 4001 1; 1.000 disable 打开研究工作区; 1.000 tooltip Lanternmoor Pro · 服务已停止; 1.000 alert 研究工作区已停止; "
                     "1.000 terminate; 1.000 close server.log; 1.000 ended" + holding},
    // Ends that are not news: an older process's, or ours once an alert was shown.
    Scenario{"AnOlderProcessEnds", [](Harness& h) { h.serviceAnswers(), h.at(1s, [](Harness& h) { h.launcher->childExited(4000); }); }, ready + holding},
    Scenario{"OursEndsAfterAnotherAlert",
             [](Harness& h) { h.serviceAnswers(), h.at(1s, [](Harness& h) { h.launcher->failurePresented = true, serviceEnds(h); }); },
             ready + "; 1.000 exit 4001 1" + holding}), byName);

void openWith(Harness& h, std::initializer_list<Fake::Answer> answers) {
    h.fake.answers = answers;
    for (std::size_t i = 0; i < answers.size(); ++i) h.launcher->openFromMenu();
}

INSTANTIATE_TEST_SUITE_P(FromTheMenu, Launch, testing::ValuesIn(fromTheMenu({
    Scenario{"ARequestWhileAnAlertIsUpIsDropped",
             [](Harness& h) { h.fake.whileShown = [&h] { h.launcher->showOccupiedPort(); }, h.launcher->showFailure("一", "1"); },
             "; " + refused("0.000", "一")},
    Scenario{"NothingIsShownOrProbedOnceTerminationBegan",
             [](Harness& h) { h.launcher->shuttingDown = true, h.launcher->showPrerequisite("一", "1"), h.launcher->openFromMenu(); }, ""},
    Scenario{"OpenWhileOursAnswers", [](Harness& h) { openWith(h, {{Fake::ours(), 500ms}}); }, "; 0.000" + probe + "; 0.500 open " + url},
    Scenario{"OpenWhileSomeoneElseAnswers", [](Harness& h) { openWith(h, {{HttpResult::reply(200, "{}"), 500ms}}); },
             "; 0.000" + probe + "; " + refused("0.500", "本机地址已被其他程序占用")},
    Scenario{"OpenWhileNothingAnswersInTime", [](Harness& h) { openWith(h, {{Fake::ours(), 5s}}); },
             "; 0.000" + probe + "; " + refused("1.200", "工作区暂时不可用")},
    // Once a probe is out, an answer of ours still opens the page; any other shows nothing.
    Scenario{"QuitWhileTheProbesAreOut",
             [](Harness& h) { openWith(h, {{Fake::ours(), 500ms}, {HttpResult::failed(), 500ms}}), h.at(100ms, quit); },
             "; 0.000" + probe + "; 0.000" + probe + "; 0.100 terminate; 0.100 ended; 0.500 open " + url}})), byName);

// Termination requested while the sequence is suspended: it ends at its next check, and nothing
// is shown or opened, not even when the probe under way answers as ours.
TEST(Start, AQuitAtAnySuspensionPointEndsItSilently) {
    // The first probe, the Node.js search, a wait probe, a pause, the probe that answers as another
    // launcher's service, the stop of ours before the hand-over.
    for (auto at : {100ms, 500ms, 1450ms, 1700ms, 1900ms, 2100ms}) {
        Harness h;
        h.fake.fallback = {HttpResult::failed(), 300ms};
        h.fake.answers = {{HttpResult::failed(), 300ms}, {HttpResult::failed(), 300ms}, {Fake::ours(R"(,"pid":7)"), 300ms}};
        h.fake.scripts[node + " --version"].exitAfter = 1s;
        h.at(at, quit);
        h.launch();
        const auto journal = h.journal(true);  // after the quit nothing is begun, but the stop of what runs
        const std::regex stopOnly(R"(.*terminate(; [\d.]+ (SIGTERM 4001|exit 400\d \d+|close server\.log|reply yes))*; [\d.]+ ended(; [\d.]+ (exit 4000 0|close server\.log))?)");
        EXPECT_TRUE(std::regex_match(journal, stopOnly)) << journal;
        EXPECT_EQ(journal.find("start /usr/bin/node --experimental") != std::string::npos, at > 1300ms) << journal;
    }
}

// Each message names what it is about: the folder to make writable, the log, the port, the address.
TEST(Notices, NameWhatHappenedTo) {
    for (const auto& [arrange, named] : std::vector<std::pair<std::function<void(Harness&)>, std::string>>{
             {[](Harness& h) { h.fake.logFailure = platform::Error{}; }, "“/home/ada/.local/share”"},
             {[](Harness&) {}, "\n/home/ada/.local/share/Lanternmoor Pro/server.log"},
             {[](Harness& h) { h.fake.accepting = true; }, "127.0.0.1:18765 "},
             {[](Harness& h) { h.fake.opens = false, h.fake.answers = {{Fake::ours()}}; }, url + "\n"}}) {
        Harness h;
        arrange(h), h.launch();
        ASSERT_FALSE(h.fake.shown.empty());
        EXPECT_NE(h.fake.shown.front().message.find(named), std::string::npos) << h.fake.shown.front().message;
    }
}

}  // namespace lm::test
