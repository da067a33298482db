// The desktop surface on real Qt widgets (offscreen): the tray item and its menu as the
// launcher builds them, and alerts answered by clicking the real message box.
#include <QAbstractButton>
#include <QApplication>
#include <QImage>
#include <QLayout>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <algorithm>
#include <gtest/gtest.h>

#include "LanternmoorPro/platform/qt/QtAlerts.hpp"
#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"
#include "integration/SurfaceHarness.hpp"

// Failures then show texts rather than bytes.
inline void PrintTo(const QString& text, std::ostream* stream) { *stream << '"' << text.toStdString() << '"'; }

namespace lm::testing {
namespace {

using platform::Alerts;
using platform::AlertStyle;

TEST(DesktopMenu, ShowsTheSixEntriesAndTriggersTheActionsOfTheEnabledOnes) {
    platform::qt::QtStatusBar statusBar;
    auto target = std::make_shared<RecordingTarget>();
    auto [item, openItem] = installLikeTheLauncher(statusBar, target);
    auto& icon = dynamic_cast<platform::qt::QtStatusItem&>(*item).trayIcon();
    const auto entries = icon.contextMenu()->actions();
    // Rows: the text (none for the separator), whether enabled, the shortcut.
    const std::vector<std::tuple<QString, bool, QString>> rows = {{"Lanternmoor Pro · 本机工作区", false, ""}, {"打开研究工作区", false, "Ctrl+O"},
                                   {"安装与使用说明", true, ""},               {"打开数据文件夹", true, ""},
                                   {"", true, ""},                             {"退出 Lanternmoor", true, "Ctrl+Q"}};
    ASSERT_EQ(entries.size(), std::ssize(rows));
    for (int index = 0; index < entries.size(); ++index) {
        SCOPED_TRACE(index);
        const auto& [text, enabled, shortcut] = rows[index];
        EXPECT_EQ(entries[index]->text(), text);
        EXPECT_EQ(entries[index]->isSeparator(), text.isEmpty());
        EXPECT_EQ(entries[index]->isEnabled(), enabled);
        EXPECT_EQ(entries[index]->shortcut().toString(QKeySequence::PortableText), shortcut);
    }
    const auto triggerAll = [&] {
        target->performed.clear();
        for (auto* entry : entries) entry->trigger();
        return target->performed;
    };
    EXPECT_EQ(triggerAll(), (std::vector{MenuAction::openGuide, MenuAction::openData, MenuAction::quitFromMenu}));
    // The header enabled too shows that it has no action of its own.
    entries[0]->setEnabled(true);
    openItem->setEnabled(true);
    EXPECT_EQ(triggerAll(), (std::vector{MenuAction::openFromMenu, MenuAction::openGuide, MenuAction::openData,
                                         MenuAction::quitFromMenu}));
    target.reset();
    for (auto* entry : entries) entry->trigger();

    QCoreApplication::processEvents();  // the icon is put up once back in the event loop
    const auto picture = icon.icon().pixmap(64).toImage();
    QImage blank(picture.size(), picture.format());
    blank.fill(Qt::transparent);
    EXPECT_NE(picture, blank);
    EXPECT_EQ(icon.toolTip().toStdString(), startingToolTip);
    item->button()->setToolTip("Lanternmoor Pro · 服务已停止");
    EXPECT_EQ(icon.toolTip(), "Lanternmoor Pro · 服务已停止");
    // Set before the menu was attached, the label still has to reach it.
    EXPECT_EQ(icon.contextMenu()->accessibleName(), "Lanternmoor Pro");
}

using ShownAlert = std::pair<platform::Alert, QMessageBox::Icon>;
const ShownAlert prerequisite{
    {AlertStyle::informational, "请先安装 Node.js", "Lanternmoor 需要 Node.js 22.13 或更新版本。\n第二行", {"查看安装说明", "退出"}},
    QMessageBox::Information};
const ShownAlert failure{{AlertStyle::warning, "没有打开浏览器", "工作区地址：http://127.0.0.1:18765/", {"好"}},
                        QMessageBox::Warning};

TEST(DesktopAlerts, ShowTheAlertAndAnswerWithTheButtonClickedOrTheLastForABoxClosedOtherwise) {
    // Rows: what, the alert and its icon, the button clicked (-1: the box closed without a
    // click), the answer.
    const std::vector<std::tuple<const char*, const ShownAlert&, int, int>> rows = {
        {"first of two", prerequisite, 0, Alerts::firstButton},
        {"second of two", prerequisite, 1, Alerts::firstButton + 1},
        {"two, closed without a click", prerequisite, -1, Alerts::firstButton + 1},
        {"the only one", failure, 0, Alerts::firstButton},
        {"one, closed without a click", failure, -1, Alerts::firstButton},
    };
    for (const auto& [name, shown, click, expected] : rows) {
        SCOPED_TRACE(name);
        const auto& [alert, expectedIcon] = shown;
        bool answered = false;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (box == nullptr || std::exchange(answered, true)) return;
            box->layout()->activate();
            auto buttons = box->buttons();
            std::ranges::sort(buttons, {}, [box](QAbstractButton* button) { return button->mapTo(box, QPoint()).x(); });
            std::vector<std::string> leftToRight;
            for (auto* button : buttons) leftToRight.push_back(button->text().toStdString());
            EXPECT_EQ(box->windowTitle(), QString::fromStdString(alert.title));
            EXPECT_EQ(box->text(), QString::fromStdString(alert.title));
            EXPECT_EQ(box->informativeText(), QString::fromStdString(alert.message));
            EXPECT_EQ(box->icon(), expectedIcon);
            EXPECT_EQ(leftToRight, alert.buttons);
            EXPECT_EQ(box->defaultButton(), buttons.front());
            EXPECT_EQ(box->escapeButton(), buttons.back());
            click < 0 ? box->done(0) : buttons.at(click)->click();
        });
        poll.start(5);
        EXPECT_EQ(platform::qt::QtAlerts().runModal(alert), expected);
        EXPECT_TRUE(answered);
    }
}

}  // namespace
}  // namespace lm::testing
