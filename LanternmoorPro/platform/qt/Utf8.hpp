// Real platform pieces on Qt 6: they include nothing of the core but its platform interfaces.
#pragma once

#include <QByteArray>
#include <QString>

#include <string>

namespace lm::platform::qt {

// QString's own toStdString() is compiled into Qt, against the standard library Qt was built
// with; a build against another one (libc++, as on a Mac) cannot link to it. This one is ours.
inline std::string utf8(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    return std::string(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

}  // namespace lm::platform::qt
