#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"

#include <QCursor>
#include <QKeyEvent>
#include <QKeySequence>
#include <QTimer>

#include "LanternmoorPro/platform/qt/FallbackWindow.hpp"

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

std::shared_ptr<MenuItem> QtMenu::addItem(std::string title, std::optional<MenuAction> action, std::string keyEquivalent) {
    auto item = std::make_shared<QtMenuItem>(title, action, keyEquivalent);
    menu_.addAction(&item->action());
    entries_.push_back(item);
    return item;
}

void QtMenu::addSeparator() {
    menu_.addSeparator();
    entries_.push_back(nullptr);
}

QtStatusItem::QtStatusItem() {
    icon_.setContextMenu(&menu_.widget());
    // Trays differ on which click opens a context menu, so a plain click opens it as well.
    QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger) menu_.widget().popup(QCursor::pos());
    });
    QTimer::singleShot(0, &icon_, [this] { present(); });
}

QtStatusItem::~QtStatusItem() = default;

void QtStatusItem::setToolTip(std::string toolTip) {
    toolTip_ = QString::fromStdString(toolTip);
    icon_.setToolTip(toolTip_);
    if (window_) window_->setStatus(toolTip_);
}

void QtStatusItem::setAccessibilityLabel(std::string label) {
    accessibilityLabel_ = QString::fromStdString(label);
    menu_.widget().setAccessibleName(accessibilityLabel_);
}

void QtStatusItem::present() {
    icon_.setIcon(applicationIcon());
    // Shown even without a tray: Qt embeds it once a tray appears.
    icon_.show();
    if (QSystemTrayIcon::isSystemTrayAvailable()) return;
    window_ = std::make_unique<FallbackWindow>(menu_, accessibilityLabel_);
    window_->setStatus(toolTip_);
    window_->show();
}

}  // namespace lm::platform::qt
