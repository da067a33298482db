// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QLabel>
#include <QWidget>

namespace lm::platform::qt {

class QtMenu;

// Where no system tray shows the icon: a small window with the status text and the menu's
// entries as buttons, which follow the entries' enabled flags and take their key equivalents.
// Closing it is choosing the menu's quit.
class FallbackWindow final : public QWidget {
public:
    FallbackWindow(QtMenu& menu, const QString& title);
    void setStatus(const QString& text) { status_.setText(text); }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QtMenu& menu_;
    QLabel status_;
};

}  // namespace lm::platform::qt
