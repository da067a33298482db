#include "LanternmoorPro/platform/qt/QtStatusBar.hpp"

#include <QCursor>
#include <QFontDatabase>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QKeySequence>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <algorithm>

namespace lm::platform::qt {
namespace {

QFont::Weight qtWeight(FontWeight weight) {
    switch (weight) {
    case FontWeight::semibold: return QFont::DemiBold;
    case FontWeight::bold: return QFont::Bold;
    case FontWeight::regular: break;
    }
    return QFont::Normal;
}

QFont systemFont(const Font& font) {
    auto qtFont = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    qtFont.setPointSizeF(font.pointSize);
    qtFont.setWeight(qtWeight(font.weight));
    return qtFont;
}

// The key equivalent is a letter that the platform's command modifier goes with; here that
// is Ctrl.
QKeySequence shortcut(const std::string& keyEquivalent) {
    if (keyEquivalent.empty()) return {};
    return QKeySequence(QStringLiteral("Ctrl+") + QString::fromStdString(keyEquivalent).toUpper());
}

// Trays scale icons to a square, so the text is centred in one to keep its proportions.
QPixmap titlePixmap(const QString& title, const QFont& font) {
    const QFontMetrics metrics(font);
    const int side = std::max({metrics.horizontalAdvance(title), metrics.height(), 1});
    const qreal ratio = qGuiApp->devicePixelRatio();
    QPixmap pixmap(QSize(side, side) * ratio);
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.setFont(font);
    painter.setPen(QGuiApplication::palette().color(QPalette::WindowText));
    painter.drawText(QRect(0, 0, side, side), Qt::AlignCenter, title);
    return pixmap;
}

}  // namespace

QtMenuItem::QtMenuItem(const std::string& title, std::optional<MenuAction> action, const std::string& keyEquivalent)
    : action_(QString::fromStdString(title)) {
    action_.setShortcut(shortcut(keyEquivalent));
    action_.setShortcutVisibleInContextMenu(true);
    if (!action) return;
    // The action is the connection's context: both die with this item, so `this` is alive
    // whenever the slot runs.
    QObject::connect(&action_, &QAction::triggered, &action_, [this, performed = *action] {
        if (auto target = target_.lock()) target->perform(performed);
    });
}

std::shared_ptr<MenuItem> QtMenu::makeItem(std::string title, std::optional<MenuAction> action,
                                           std::string keyEquivalent) {
    return std::make_shared<QtMenuItem>(title, action, keyEquivalent);
}

void QtMenu::addItem(std::shared_ptr<MenuItem> item) {
    auto ours = std::dynamic_pointer_cast<QtMenuItem>(item);
    if (!ours) return;
    menu_.addAction(&ours->action());
    items_.push_back(std::move(ours));
}

QtStatusItem::QtStatusItem() {
    // Trays differ on which click opens a context menu, so a plain click opens it as well.
    QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && menu_) menu_->widget().popup(QCursor::pos());
    });
}

void QtStatusItem::setMenu(std::shared_ptr<Menu> menu) {
    menu_ = std::dynamic_pointer_cast<QtMenu>(menu);
    icon_.setContextMenu(menu_ ? &menu_->widget() : nullptr);
    applyAccessibilityLabel();
}

void QtStatusItem::setTitle(std::string title) {
    title_ = QString::fromStdString(title);
    redraw();
}

void QtStatusItem::setFont(Font font) {
    font_ = font;
    redraw();
}

void QtStatusItem::setAccessibilityLabel(std::string label) {
    accessibilityLabel_ = QString::fromStdString(label);
    applyAccessibilityLabel();
}

void QtStatusItem::redraw() {
    icon_.setIcon(QIcon(titlePixmap(title_, systemFont(font_))));
    // Shown once it has a picture: an icon without one would be an empty slot in the tray.
    icon_.show();
}

void QtStatusItem::applyAccessibilityLabel() {
    if (menu_) menu_->widget().setAccessibleName(accessibilityLabel_);
}

std::shared_ptr<StatusItem> QtStatusBar::statusItem(double) { return std::make_shared<QtStatusItem>(); }

}  // namespace lm::platform::qt
