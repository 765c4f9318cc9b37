// SPDX-License-Identifier: GPL-3.0-or-later
// The stored form of AppState::Snapshot: one compact JSON object, eleven members.
#include "AppState.h"
#include "JsonNumbers.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <charconv>
#include <cmath>
#include <cstdio>

namespace bonkwell {
namespace {

bool finite(double v) {
    return std::isfinite(v);
}

QByteArray jsonBool(bool b) {
    return b ? QByteArrayLiteral("true") : QByteArrayLiteral("false");
}

// Shortest round-trip form. A negative zero is written "-0.0" because readers take "-0" for
// the integer 0.
QByteArray jsonDouble(double v) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    QByteArray text(buffer, static_cast<qsizetype>(result.ptr - buffer));
    if (v == 0.0 && std::signbit(v)) {
        text = QByteArrayLiteral("-0.0");
    }
    return text;
}

QByteArray jsonString(const QString& s) {
    QByteArray out = "\"";
    for (const char c : s.toUtf8()) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    out += '"';
    return out;
}

std::optional<bool> readBool(const QJsonObject& o, const char* key) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isBool()) {
        return std::nullopt;
    }
    return v.toBool();
}

std::optional<double> readDouble(const QJsonObject& o, const char* key) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isDouble()) {
        return std::nullopt;
    }
    return v.toDouble();
}

std::optional<std::int64_t> readInt64(const QJsonObject& o, const char* key) {
    return exactInteger(o.value(QLatin1String(key)));
}

std::optional<QString> readString(const QJsonObject& o, const char* key) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isString()) {
        return std::nullopt;
    }
    return v.toString();
}

}  // namespace

std::optional<QByteArray> AppState::Snapshot::encode() const {
    if (!finite(sensitivity) || !finite(cooldown) || !finite(volume) ||
        !finite(lastCountDate.sinceReference)) {
        return std::nullopt;
    }
    // Written by hand, members in table order, so that every double keeps its exact bits
    // (the shortest text that reads back to the same value, -0.0 included).
    QByteArray out;
    out.reserve(320);
    out += "{\"listeningEnabled\":";
    out += jsonBool(listeningEnabled);
    out += ",\"sensitivity\":";
    out += jsonDouble(sensitivity);
    out += ",\"cooldown\":";
    out += jsonDouble(cooldown);
    out += ",\"volume\":";
    out += jsonDouble(volume);
    out += ",\"volumeScaling\":";
    out += jsonBool(volumeScaling);
    out += ",\"mode\":";
    out += jsonString(mode);
    out += ",\"selectedPackName\":";
    out += jsonString(selectedPackName);
    out += ",\"todayCount\":";
    out += QByteArray::number(qint64{todayCount});
    out += ",\"totalCount\":";
    out += QByteArray::number(qint64{totalCount});
    out += ",\"lastCountDate\":";
    out += jsonDouble(lastCountDate.sinceReference);
    out += ",\"launchAtLogin\":";
    out += jsonBool(launchAtLogin);
    out += '}';
    return out;
}

std::optional<AppState::Snapshot> AppState::Snapshot::decode(const QByteArray& bytes) {
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        return std::nullopt;
    }
    const QJsonObject o = doc.object();
    const auto listening = readBool(o, "listeningEnabled");
    const auto sens = readDouble(o, "sensitivity");
    const auto cool = readDouble(o, "cooldown");
    const auto vol = readDouble(o, "volume");
    const auto scaling = readBool(o, "volumeScaling");
    const auto modeRaw = readString(o, "mode");
    const auto pack = readString(o, "selectedPackName");
    const auto today = readInt64(o, "todayCount");
    const auto total = readInt64(o, "totalCount");
    const auto date = readDouble(o, "lastCountDate");
    const auto login = readBool(o, "launchAtLogin");
    if (!listening || !sens || !cool || !vol || !scaling || !modeRaw || !pack || !today || !total ||
        !date || !login) {
        return std::nullopt;
    }
    Snapshot s;
    s.listeningEnabled = *listening;
    s.sensitivity = *sens;
    s.cooldown = *cool;
    s.volume = *vol;
    s.volumeScaling = *scaling;
    s.mode = *modeRaw;
    s.selectedPackName = *pack;
    s.todayCount = *today;
    s.totalCount = *total;
    s.lastCountDate = Date{*date};
    s.launchAtLogin = *login;
    return s;
}

}  // namespace bonkwell
