#include "LanternmoorPro/platform/qt/QtAlerts.hpp"

#include <QGridLayout>
#include <QMessageBox>
#include <QPushButton>
#include <QSpacerItem>
#include <algorithm>

namespace lm::platform::qt {
namespace {

// Wide enough that a sentence, the workspace address and a log path each stay on one line.
constexpr int minimumWidth = 460;

QMessageBox::Icon icon(AlertStyle style) {
    return style == AlertStyle::informational ? QMessageBox::Information : QMessageBox::Warning;
}

}  // namespace

std::size_t QtAlerts::runModal(const Alert& alert) {
    QMessageBox box;
    box.setIcon(icon(alert.style));
    box.setWindowTitle(QString::fromStdString(alert.title));
    box.setTextFormat(Qt::PlainText);
    box.setText(QString::fromStdString(alert.title));
    // The title stands out from the message as a heading, with its text left plain.
    box.setStyleSheet(QStringLiteral("QLabel#qt_msgbox_label { font-weight: bold; }"));
    box.setInformativeText(QString::fromStdString(alert.message));

    // One role for all keeps the platform's button layout from reordering them.
    std::vector<QPushButton*> buttons;
    for (const auto& title : alert.buttons) {
        buttons.push_back(box.addButton(QString::fromStdString(title), QMessageBox::ActionRole));
    }
    if (!buttons.empty()) box.setDefaultButton(buttons.front());
    // Escape and the window's close request answer with the last button, as any answer but
    // the first counts as the last.
    if (!buttons.empty()) box.setEscapeButton(buttons.back());
    // A message box sizes itself to its title; only a spacer across it sets a floor it keeps.
    if (auto* grid = qobject_cast<QGridLayout*>(box.layout())) {
        grid->addItem(new QSpacerItem(minimumWidth, 0, QSizePolicy::Minimum, QSizePolicy::Fixed), grid->rowCount(), 0, 1,
                      grid->columnCount());
    }

    box.exec();
    const auto clicked = std::find(buttons.begin(), buttons.end(), box.clickedButton());
    // Anything but a click on one of ours (the loop ended under it, say) is the last button.
    if (clicked != buttons.end()) return static_cast<std::size_t>(clicked - buttons.begin());
    return buttons.empty() ? 0 : buttons.size() - 1;
}

}  // namespace lm::platform::qt
