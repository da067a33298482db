#include "LanternmoorPro/platform/qt/QtOpener.hpp"

#include <QDesktopServices>
#include <QUrl>

namespace lm::platform::qt {

bool QtOpener::open(const std::string& url) { return QDesktopServices::openUrl(QUrl(QString::fromStdString(url))); }

}  // namespace lm::platform::qt
