// The desktop surface on real Qt widgets (offscreen): the tray item and its menu as the
// launcher builds them, and alerts answered by clicking the real message box.
#include <QAbstractButton>
#include <QApplication>
#include <QImage>
#include <QLayout>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTimer>
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

#include "LanternmoorPro/platform/qt/QtAlerts.hpp"
#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"
#include "integration/SurfaceHarness.hpp"

// Failures then show texts rather than bytes.
inline void PrintTo(const QString& text, std::ostream* stream) { *stream << '"' << text.toStdString() << '"'; }

namespace lm::testing {
namespace {

using platform::Alert;
using platform::AlertStyle;
using platform::Alerts;
using platform::qt::QtAlerts;
using platform::qt::QtStatusBar;
using platform::qt::QtStatusItem;

class DesktopMenu : public ::testing::Test {
protected:
    QtStatusBar statusBar;
    std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
    InstalledMenu installed = installLikeTheLauncher(statusBar, target);
    QtStatusItem& item = dynamic_cast<QtStatusItem&>(*installed.statusItem);

    QMenu& menu() { return *item.trayIcon().contextMenu(); }
    QAction& entry(int index) { return *menu().actions().at(index); }
};

TEST_F(DesktopMenu, ShowsTheSixEntriesInOrderWithTheirFlagsAndShortcuts) {
    struct Row {
        QString text;
        bool separator;
        bool enabled;
        QString shortcut;
    };
    const std::vector<Row> expected = {
        {"Lanternmoor Pro · 本机工作区", false, false, ""},
        {"打开研究工作区", false, false, "Ctrl+O"},
        {"安装与使用说明", false, true, ""},
        {"打开数据文件夹", false, true, ""},
        {"", true, true, ""},
        {"退出 Lanternmoor", false, true, "Ctrl+Q"},
    };
    ASSERT_EQ(menu().actions().size(), static_cast<qsizetype>(expected.size()));
    for (std::size_t index = 0; index < expected.size(); ++index) {
        SCOPED_TRACE(index);
        const auto& action = entry(static_cast<int>(index));
        EXPECT_EQ(action.text(), expected[index].text);
        EXPECT_EQ(action.isSeparator(), expected[index].separator);
        EXPECT_EQ(action.isEnabled(), expected[index].enabled);
        EXPECT_EQ(action.shortcut().toString(QKeySequence::PortableText), expected[index].shortcut);
    }
}

TEST_F(DesktopMenu, TheOpenEntryIsUsableExactlyWhileTheLauncherEnablesIt) {
    entry(1).trigger();
    installed.openItem->setEnabled(true);
    EXPECT_TRUE(entry(1).isEnabled());
    entry(1).trigger();
    installed.openItem->setEnabled(false);
    EXPECT_FALSE(entry(1).isEnabled());
    entry(1).trigger();

    EXPECT_EQ(target->performed, std::vector<MenuAction>{MenuAction::openFromMenu});
}

TEST_F(DesktopMenu, EachEntryPerformsItsOwnActionAndTheHeaderNone) {
    installed.openItem->setEnabled(true);
    const std::vector<std::pair<int, std::vector<MenuAction>>> rows = {
        {0, {}},
        {1, {MenuAction::openFromMenu}},
        {2, {MenuAction::openGuide}},
        {3, {MenuAction::openData}},
        {5, {MenuAction::quitFromMenu}},
    };
    for (const auto& [index, actions] : rows) {
        SCOPED_TRACE(index);
        target->performed.clear();
        entry(index).setEnabled(true);
        entry(index).trigger();
        EXPECT_EQ(target->performed, actions);
    }
}

TEST_F(DesktopMenu, EntriesOfAGoneTargetDoNothing) {
    installed.openItem->setEnabled(true);
    target.reset();
    for (auto* action : menu().actions()) action->trigger();
    SUCCEED();
}

TEST_F(DesktopMenu, TheTrayIconShowsTheTitleAndItsToolTipFollowsThePresentation) {
    const auto picture = item.trayIcon().icon().pixmap(64).toImage();
    const auto drawn = [&picture] {
        for (int y = 0; y < picture.height(); ++y) {
            for (int x = 0; x < picture.width(); ++x) {
                if (qAlpha(picture.pixel(x, y)) != 0) return true;
            }
        }
        return false;
    }();
    EXPECT_TRUE(drawn);

    for (const auto& toolTip : {startingToolTip, runningToolTip, stoppedToolTip}) {
        item.setToolTip(toolTip);
        EXPECT_EQ(item.trayIcon().toolTip().toStdString(), toolTip);
        EXPECT_EQ(menu().accessibleName(), "Lanternmoor Pro");
    }
}

TEST(DesktopStatusItem, TheAccessibilityLabelReachesAMenuAttachedLater) {
    QtStatusBar statusBar;
    auto item = statusBar.statusItem(platform::StatusBar::variableLength);
    item->button()->setAccessibilityLabel("Lanternmoor Pro");
    item->setMenu(statusBar.makeMenu());
    auto& icon = dynamic_cast<QtStatusItem&>(*item).trayIcon();
    EXPECT_EQ(icon.contextMenu()->accessibleName(), "Lanternmoor Pro");
}

// ---- alerts ---------------------------------------------------------------------------------

const Alert prerequisite{AlertStyle::informational, "请先安装 Node.js",
                         "Lanternmoor 需要 Node.js 22.13 或更新版本。\n第二行", {"查看安装说明", "退出"}};
const Alert failure{AlertStyle::warning, "没有打开浏览器", "工作区地址：http://127.0.0.1:18765/", {"好"}};

// What the test saw of the box while it was up.
struct SeenBox {
    QString windowTitle;
    QString text;
    QString informativeText;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QStringList buttonsLeftToRight;
    QString defaultButton;
    QString escapeButton;
};

// Waits for the modal box, records it, then answers it with `answer`.
void answerNextBox(SeenBox& seen, std::function<void(QMessageBox&, const QList<QAbstractButton*>&)> answer) {
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, poll, [poll, &seen, answer] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr) return;
        poll->deleteLater();
        poll->stop();
        box->layout()->activate();
        auto buttons = box->buttons();
        std::sort(buttons.begin(), buttons.end(), [box](QAbstractButton* left, QAbstractButton* right) {
            return left->mapTo(box, QPoint()).x() < right->mapTo(box, QPoint()).x();
        });
        seen = {box->windowTitle(), box->text(), box->informativeText(), box->icon(), {}, {}, {}};
        for (auto* button : buttons) seen.buttonsLeftToRight << button->text();
        if (box->defaultButton() != nullptr) seen.defaultButton = box->defaultButton()->text();
        if (box->escapeButton() != nullptr) seen.escapeButton = box->escapeButton()->text();
        answer(*box, buttons);
    });
    poll->start(5);
}

auto clickButton(int index) {
    return [index](QMessageBox&, const QList<QAbstractButton*>& buttons) { buttons.at(index)->click(); };
}

TEST(DesktopAlerts, ShowTheExactTextsIconAndButtonsInOrder) {
    struct Row {
        const Alert& alert;
        QMessageBox::Icon icon;
        QString escapeButton;
    };
    for (const Row& row : {Row{prerequisite, QMessageBox::Information, ""}, Row{failure, QMessageBox::Warning, "好"}}) {
        SCOPED_TRACE(row.alert.title);
        SeenBox seen;
        answerNextBox(seen, clickButton(0));
        QtAlerts().runModal(row.alert);

        const auto title = QString::fromStdString(row.alert.title);
        EXPECT_EQ(seen.windowTitle, title);
        EXPECT_EQ(seen.text, title);
        EXPECT_EQ(seen.informativeText, QString::fromStdString(row.alert.message));
        EXPECT_EQ(seen.icon, row.icon);
        QStringList buttons;
        for (const auto& button : row.alert.buttons) buttons << QString::fromStdString(button);
        EXPECT_EQ(seen.buttonsLeftToRight, buttons);
        EXPECT_EQ(seen.defaultButton, buttons.front());
        EXPECT_EQ(seen.escapeButton, row.escapeButton);
    }
}

TEST(DesktopAlerts, AnswerWithTheButtonClickedAndTheLastOneForABoxClosedOtherwise) {
    using Answer = std::function<void(QMessageBox&, const QList<QAbstractButton*>&)>;
    const Answer closeWithoutClick = [](QMessageBox& box, const QList<QAbstractButton*>&) { box.done(0); };
    struct Row {
        const char* name;
        const Alert& alert;
        Answer answer;
        int expected;
    };
    const std::vector<Row> rows = {
        {"first of two", prerequisite, clickButton(0), Alerts::firstButton},
        {"second of two", prerequisite, clickButton(1), Alerts::firstButton + 1},
        {"two, closed without a click", prerequisite, closeWithoutClick, Alerts::firstButton + 1},
        {"the only one", failure, clickButton(0), Alerts::firstButton},
        {"one, closed without a click", failure, closeWithoutClick, Alerts::firstButton},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SeenBox seen;
        answerNextBox(seen, row.answer);
        EXPECT_EQ(QtAlerts().runModal(row.alert), row.expected);
    }
}

}  // namespace
}  // namespace lm::testing
