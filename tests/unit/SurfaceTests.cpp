#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

using platform::MenuAction;

constexpr const char* guideURL = "file:///opt/lm/share/lanternmoor-pro/%E5%AE%89%E8%A3%85%E4%B8%8E%E4%BD%BF%E7%94%A8.html";

using Notices = LauncherTest;

TEST_F(Notices, OnlyTheFirstOfTwoFailuresIsShownAndOnlyItAsksToQuit) {
    launcher->showFailure("一", "1");
    launcher->showFailure("二", "2");
    EXPECT_EQ(alertTitles(), Strings{"一"});
    EXPECT_EQ(fake.application.terminateRequests, 1);
    EXPECT_EQ(alert().buttons, Strings{"好"});
    EXPECT_EQ(alert().style, platform::AlertStyle::warning);
    EXPECT_EQ(fake.application.activations, 1);
}

TEST_F(Notices, ARequestWhileAnAlertIsUpIsDropped) {
    fake.alerts.whileShown = [this] { launcher->showOccupiedPort(); };
    launcher->showFailure("一", "1");
    EXPECT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(fake.application.terminateRequests, 1);
}

TEST_F(Notices, NothingIsShownOnceTerminationBegan) {
    launcher->shuttingDown = true;
    launcher->showPrerequisite("一", "1");
    launcher->showFailure("二", "2");
    EXPECT_TRUE(fake.alerts.shown.empty());
    EXPECT_EQ(fake.application.terminateRequests, 0);
    EXPECT_FALSE(launcher->failurePresented);
}

TEST_F(Notices, ThePrerequisiteAlertOpensTheGuideBeforeQuittingOnlyWhenAskedTo) {
    launcher->showPrerequisite(std::string(texts::nodeMissingTitle), std::string(texts::nodeMissingMessage));
    EXPECT_EQ(alert().buttons, (Strings{"查看安装说明", "退出"}));
    EXPECT_EQ(alert().style, platform::AlertStyle::informational);
    EXPECT_LT(journalIndex(std::string("open ") + guideURL), journalIndex("terminate"));

    Harness other;  // a second run answered with "退出"
    other.fake.alerts.answers = {1};
    other.launcher->showPrerequisite("t", "m");
    EXPECT_TRUE(other.fake.opener.opened.empty());
    EXPECT_EQ(other.fake.application.terminateRequests, 1);
}

TEST_F(Notices, TheOccupiedPortMessageNamesTheAddressWithOneBlankBeforeTheText) {
    launcher->showOccupiedPort();
    EXPECT_EQ(alert().title, "本机地址已被其他程序占用");
    EXPECT_EQ(alert().message,
              "127.0.0.1:18765 当前没有返回 Lanternmoor 的服务标识。请先关闭占用该地址的程序，再重新打开 Lanternmoor Pro。应用没有关闭或替换其他程序。");
}

using OpenWorkspace = LauncherTest;

TEST_F(OpenWorkspace, EachProbeVerdictHasItsOutcome) {
    struct Row {
        HttpResult answer;
        Strings opened;
        Strings alerts;
    };
    const std::vector<Row> rows{
        {FakeHttp::ours(), {workspace}, {}},
        {FakeHttp::other(), {}, {"本机地址已被其他程序占用"}},
        {HttpResult::failed(), {}, {"工作区暂时不可用"}},
    };
    for (auto& row : rows) {
        Harness run;
        run.fake.http.answers.push_back({row.answer});
        run.launcher->openFromMenu();
        run.fake.mainThread.runUntilIdle();
        EXPECT_EQ(run.fake.opener.opened, row.opened);
        EXPECT_EQ(run.alertTitles(), row.alerts);
    }
}

TEST_F(OpenWorkspace, IsSilentOnceTerminationBegan) {
    launcher->shuttingDown = true;
    launcher->openFromMenu();
    fake.mainThread.runUntilIdle();
    EXPECT_TRUE(fake.http.requests.empty());
}

TEST_F(OpenWorkspace, AQuitDuringTheProbeStillLetsOursOpenButSilencesTheRest) {
    for (auto answer : {FakeHttp::ours(), HttpResult::failed()}) {
        Harness run;
        run.fake.http.answers.push_back({answer, 500ms});
        run.launcher->openFromMenu();
        run.fake.mainThread.runFor(100ms);
        run.launcher->shuttingDown = true;
        run.fake.mainThread.runUntilIdle();
        EXPECT_EQ(run.fake.opener.opened.size(), answer.kind == HttpResult::Kind::reply ? 1u : 0u);
        EXPECT_TRUE(run.fake.alerts.shown.empty());
    }
}

TEST_F(OpenWorkspace, ABrowserThatWillNotOpenQuotesTheWholeAddress) {
    fake.opener.succeeds = false;
    launcher->openBrowser();
    ASSERT_EQ(fake.alerts.shown.size(), 1u);
    EXPECT_EQ(alert().title, "没有打开浏览器");
    EXPECT_EQ(alert().message, "工作区地址：http://127.0.0.1:18765/\n请检查默认浏览器设置，再重新打开应用。");
}

TEST_F(OpenWorkspace, ReopenDoesNothingWhileStartingAndOpensWhileReady) {
    fake.http.fallback = FakeHttp::Answer{FakeHttp::ours()};
    EXPECT_FALSE(launcher->applicationShouldHandleReopen(true));
    fake.mainThread.runUntilIdle();
    EXPECT_TRUE(fake.http.requests.empty());

    launcher->ready = true;
    EXPECT_FALSE(launcher->applicationShouldHandleReopen(false));
    fake.mainThread.runUntilIdle();
    EXPECT_EQ(fake.opener.opened, Strings{workspace});
}

class StatusMenu : public LauncherTest {
protected:
    struct Entry {
        std::string title;
        std::optional<MenuAction> action;
        std::string key;
        bool enabled;
        friend bool operator==(const Entry&, const Entry&) = default;
    };
    std::vector<Entry> entries() {
        std::vector<Entry> result;
        for (auto& item : menu().items)
            result.push_back({item->separator ? "---" : item->title, item->action,
                              item->keyEquivalent, item->enabled});
        return result;
    }
};

TEST_F(StatusMenu, StartsWithSixEntriesInTheStartingPresentation) {
    launcher->installMenu();
    const std::vector<Entry> expected{
        {"Lanternmoor Pro · 本机工作区", std::nullopt, "", false},
        {"打开研究工作区", MenuAction::openFromMenu, "o", false},
        {"安装与使用说明", MenuAction::openGuide, "", true},
        {"打开数据文件夹", MenuAction::openData, "", true},
        {"---", std::nullopt, "", true},
        {"退出 Lanternmoor", MenuAction::quitFromMenu, "q", true},
    };
    EXPECT_EQ(entries(), expected);
    EXPECT_FALSE(menu().autoenablesItems);
    EXPECT_EQ(fake.statusBar.items[0]->length, -1);
    EXPECT_EQ(button().title, "LM");
    EXPECT_EQ(button().font, (platform::Font{12, platform::FontWeight::semibold}));
    EXPECT_EQ(button().toolTip(), "Lanternmoor Pro · 正在启动");
    EXPECT_EQ(button().accessibilityLabel, "Lanternmoor Pro");
    EXPECT_EQ(launcher->openItem, std::static_pointer_cast<platform::MenuItem>(menu().items[1]));
}

TEST_F(StatusMenu, IsUpBeforeTheFirstProbeThenFollowsRunningThenStoppedAndTheLabelNeverChanges) {
    serviceAnswersAfter(0);
    launcher->applicationDidFinishLaunching();
    EXPECT_EQ(fake.statusBar.items.size(), 1u);
    EXPECT_TRUE(fake.http.requests.empty());
    fake.mainThread.runUntilIdle();
    EXPECT_TRUE(menu().items[1]->enabled);
    service()->exit(1);
    fake.mainThread.runUntilIdle();
    EXPECT_FALSE(menu().items[1]->enabled);
    EXPECT_EQ(button().toolTips, (Strings{"Lanternmoor Pro · 正在启动", "Lanternmoor Pro · 正在本机运行",
                                                           "Lanternmoor Pro · 服务已停止"}));
    EXPECT_EQ(button().accessibilityLabel, "Lanternmoor Pro");
}

TEST_F(StatusMenu, WithoutAButtonStillHasItsMenuAndTheOpenItemStillFollows) {
    fake.statusBar.itemsHaveButtons = false;
    serviceAnswersAfter(0);
    launch();
    EXPECT_TRUE(launcher->statusItem);
    ASSERT_TRUE(fake.statusBar.items[0]->menu);
    EXPECT_TRUE(launcher->openItem->isEnabled());
}

TEST_F(StatusMenu, EntriesDriveTheLauncherAndDisabledOnesDoNothing) {
    launcher->installMenu();
    menu().items[1]->click();  // disabled while starting
    menu().items[2]->click();
    menu().items[3]->click();
    fake.mainThread.runUntilIdle();
    EXPECT_TRUE(fake.http.requests.empty());
    EXPECT_EQ(fake.opener.opened,
              (Strings{guideURL, "file:///home/ada/.local/share/Lanternmoor%20Pro/"}));
    menu().items[5]->click();
    EXPECT_TRUE(journalHas("ended"));
}

TEST_F(StatusMenu, TheGuideWithoutAResourcesFolderOpensNothing) {
    fake.folders.resources.reset();
    launcher->openGuide();
    EXPECT_TRUE(fake.opener.opened.empty());
}

}  // namespace
}  // namespace lm::test
