#include "LanternmoorPro/platform/qt/FallbackWindow.hpp"

#include <QCloseEvent>
#include <QFrame>
#include <QToolButton>
#include <QVBoxLayout>

#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"

namespace lm::platform::qt {
namespace {

// Wide enough that a title bar drawn by the application itself (Qt's own on Wayland) still
// shows the whole title beside its buttons.
constexpr int narrowest = 280;

}  // namespace

FallbackWindow::FallbackWindow(QtMenu& menu, const QString& title) : menu_(menu) {
    setWindowTitle(title);
    setWindowIcon(applicationIcon());
    setAccessibleName(title);
    setMinimumWidth(narrowest);
    auto* layout = new QVBoxLayout(this);
    status_.setParent(this);
    for (const auto& entry : menu.entries()) {
        if (!entry) {
            auto* line = new QFrame(this);
            line->setFrameShape(QFrame::HLine);
            layout->addWidget(line);
        } else if (!entry->performs()) {
            // A label in the menu; here it heads the status line and the buttons.
            auto* heading = new QLabel(entry->action().text(), this);
            heading->setStyleSheet(QStringLiteral("font-weight: bold;"));
            layout->addWidget(heading);
            layout->addWidget(&status_);
        } else {
            auto* button = new QToolButton(this);
            button->setDefaultAction(&entry->action());
            button->setToolButtonStyle(Qt::ToolButtonTextOnly);
            button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
            layout->addWidget(button);
            // Their key equivalents work while this window has the keyboard.
            addAction(&entry->action());
        }
    }
    if (layout->indexOf(&status_) < 0) layout->insertWidget(0, &status_);
}

void FallbackWindow::closeEvent(QCloseEvent* event) {
    // The window goes with the launcher, which the quit ends; until then it stays.
    event->ignore();
    for (const auto& entry : menu_.entries()) {
        if (entry && entry->performs() == MenuAction::quitFromMenu) entry->action().trigger();
    }
}

}  // namespace lm::platform::qt
