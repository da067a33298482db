#include "LanternmoorPro/platform/qt/QtJson.hpp"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

namespace lm::platform::qt {

std::optional<std::string> QtJson::stringMemberOfObject(std::string_view text, std::string_view key) const {
    auto document = QJsonDocument::fromJson(QByteArray(text.data(), static_cast<qsizetype>(text.size())));
    if (!document.isObject()) return std::nullopt;
    auto value = document.object().value(QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size())));
    if (!value.isString()) return std::nullopt;
    return value.toString().toStdString();
}

}  // namespace lm::platform::qt
