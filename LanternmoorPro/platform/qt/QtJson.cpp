#include "LanternmoorPro/platform/qt/QtJson.hpp"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <cmath>

#include "LanternmoorPro/platform/qt/Utf8.hpp"

namespace lm::platform::qt {
namespace {

// Undefined unless the text is an object holding the key.
QJsonValue member(std::string_view text, std::string_view key) {
    auto document = QJsonDocument::fromJson(QByteArray(text.data(), static_cast<qsizetype>(text.size())));
    if (!document.isObject()) return QJsonValue(QJsonValue::Undefined);
    return document.object().value(QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size())));
}

}  // namespace

std::optional<std::string> QtJson::stringMemberOfObject(std::string_view text, std::string_view key) const {
    auto value = member(text, key);
    if (!value.isString()) return std::nullopt;
    return utf8(value.toString());
}

std::optional<std::int64_t> QtJson::integerMemberOfObject(std::string_view text, std::string_view key) const {
    auto value = member(text, key);
    // JSON numbers are doubles here; beyond 2^53 they are no longer whole numbers one can trust.
    constexpr double exactLimit = 9007199254740992.0;
    if (!value.isDouble()) return std::nullopt;
    const double number = value.toDouble();
    if (std::floor(number) != number || std::fabs(number) > exactLimit) return std::nullopt;
    return static_cast<std::int64_t>(number);
}

}  // namespace lm::platform::qt
