#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"

#include <QCloseEvent>
#include <QCursor>
#include <QFrame>
#include <QKeyEvent>
#include <QKeySequence>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace lm::platform::qt {
namespace {

// The key equivalent is a letter that the platform's command modifier goes with; here that
// is Ctrl (on a Mac, Qt maps it to Command).
QKeySequence shortcut(const std::string& keyEquivalent) {
    if (keyEquivalent.empty()) return {};
    return QKeySequence(QStringLiteral("Ctrl+") + QString::fromStdString(keyEquivalent).toUpper());
}

}  // namespace

QIcon applicationIcon() { return QIcon(QStringLiteral(":/lanternmoor-pro.svg")); }

QtMenuItem::QtMenuItem(const std::string& title, std::optional<MenuAction> action, const std::string& keyEquivalent)
    : action_(QString::fromStdString(title)), performs_(action) {
    action_.setShortcut(shortcut(keyEquivalent));
    action_.setShortcutVisibleInContextMenu(true);
    if (!action) return;
    // The action is the connection's context: both die with this item, so `this` is alive
    // whenever the slot runs.
    QObject::connect(&action_, &QAction::triggered, &action_, [this, performed = *action] {
        if (auto target = target_.lock()) target->perform(performed);
    });
}

void ShortcutMenu::keyPressEvent(QKeyEvent* event) {
    const QKeySequence pressed(event->keyCombination());
    for (auto* action : actions()) {
        if (action->isSeparator() || action->shortcut().isEmpty() || action->shortcut() != pressed) continue;
        if (!action->isEnabled()) return;
        close();
        action->trigger();
        return;
    }
    QMenu::keyPressEvent(event);
}

std::shared_ptr<MenuItem> QtMenu::makeItem(std::string title, std::optional<MenuAction> action,
                                           std::string keyEquivalent) {
    return std::make_shared<QtMenuItem>(title, action, keyEquivalent);
}

void QtMenu::addItem(std::shared_ptr<MenuItem> item) {
    auto ours = std::dynamic_pointer_cast<QtMenuItem>(item);
    if (!ours) return;
    menu_.addAction(&ours->action());
    entries_.push_back(std::move(ours));
}

void QtMenu::addSeparator() {
    menu_.addSeparator();
    entries_.push_back(nullptr);
}

FallbackWindow::FallbackWindow(QtMenu& menu, const QString& title) : menu_(menu) {
    setWindowTitle(title);
    setWindowIcon(applicationIcon());
    setAccessibleName(title);
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

QtStatusItem::QtStatusItem() {
    // Trays differ on which click opens a context menu, so a plain click opens it as well.
    QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && menu_) menu_->widget().popup(QCursor::pos());
    });
    QTimer::singleShot(0, &icon_, [this] { present(); });
}

void QtStatusItem::setMenu(std::shared_ptr<Menu> menu) {
    menu_ = std::dynamic_pointer_cast<QtMenu>(menu);
    icon_.setContextMenu(menu_ ? &menu_->widget() : nullptr);
    setAccessibilityLabel(accessibilityLabel_.toStdString());
}

void QtStatusItem::setToolTip(std::string toolTip) {
    toolTip_ = QString::fromStdString(toolTip);
    icon_.setToolTip(toolTip_);
    if (window_) window_->setStatus(toolTip_);
}

void QtStatusItem::setAccessibilityLabel(std::string label) {
    accessibilityLabel_ = QString::fromStdString(label);
    if (menu_) menu_->widget().setAccessibleName(accessibilityLabel_);
}

void QtStatusItem::present() {
    icon_.setIcon(applicationIcon());
    // Shown even without a tray: Qt embeds it once a tray appears.
    icon_.show();
    if (QSystemTrayIcon::isSystemTrayAvailable() || !menu_) return;
    window_ = std::make_unique<FallbackWindow>(*menu_, accessibilityLabel_);
    window_->setStatus(toolTip_);
    window_->show();
}

std::shared_ptr<StatusItem> QtStatusBar::statusItem(double) { return std::make_shared<QtStatusItem>(); }

}  // namespace lm::platform::qt
