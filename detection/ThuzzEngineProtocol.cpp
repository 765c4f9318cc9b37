// SPDX-License-Identifier: GPL-3.0-or-later
#include "ThuzzEngineProtocol.h"

#include "JsonNumbers.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace bonkwell {

QStringList thuzzLaunchArguments(double minAmplitude, std::int64_t cooldownMs) {
    // Fixed notation with four decimals, independent of LC_NUMERIC (Qt sets the locale from
    // the environment, and printf would then write "0,0500" in some of them).
    char buf[400];
    const auto res =
        std::to_chars(buf, buf + sizeof buf, minAmplitude, std::chars_format::fixed, 4);
    const QString amplitude = res.ec == std::errc()
                                  ? QString::fromLatin1(buf, static_cast<int>(res.ptr - buf))
                                  : QString::number(minAmplitude, 'f', 4);
    return {QStringLiteral("--stdio"),         QStringLiteral("--detect-only"),
            QStringLiteral("--min-amplitude"), amplitude,
            QStringLiteral("--cooldown"),      QString::number(cooldownMs)};
}

std::string shortestRoundTrip(double value) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-inf" : "inf";
    }
    // Shortest scientific form first ("1.25e-01"), then laid out the way a reader expects.
    char buf[64];
    const auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
    const std::string sci(buf, res.ptr);
    std::string out;
    std::size_t pos = 0;
    if (sci[0] == '-') {
        out += '-';
        pos = 1;
    }
    const std::size_t ePos = sci.find('e');
    std::string digits;
    for (std::size_t i = pos; i < ePos; ++i) {
        if (sci[i] != '.') {
            digits += sci[i];
        }
    }
    const int exponent = std::atoi(sci.c_str() + ePos + 1);
    const int nDigits = static_cast<int>(digits.size());

    if (exponent < -4 || exponent >= 16) {
        out += digits[0];
        if (nDigits > 1) {
            out += '.';
            out.append(digits, 1, std::string::npos);
        }
        out += exponent < 0 ? "e-" : "e+";
        const int absExp = std::abs(exponent);
        if (absExp < 10) {
            out += '0';
        }
        out += std::to_string(absExp);
    } else if (exponent >= 0) {
        if (nDigits <= exponent + 1) {
            out += digits;
            out.append(static_cast<std::size_t>(exponent + 1 - nDigits), '0');
            out += ".0";
        } else {
            out.append(digits, 0, static_cast<std::size_t>(exponent + 1));
            out += '.';
            out.append(digits, static_cast<std::size_t>(exponent + 1), std::string::npos);
        }
    } else {
        out += "0.";
        out.append(static_cast<std::size_t>(-exponent - 1), '0');
        out += digits;
    }
    return out;
}

std::optional<QByteArray> thuzzSetCommand(double amplitude, std::int64_t cooldownMs) {
    if (!std::isfinite(amplitude)) {
        return std::nullopt;
    }
    QByteArray line("{\"cmd\":\"set\",\"amplitude\":");
    line += shortestRoundTrip(amplitude);
    line += ",\"cooldown\":";
    line += QByteArray::number(static_cast<qlonglong>(cooldownMs));
    line += "}\n";
    return line;
}

QByteArray thuzzSamplesCommand(bool on) {
    return on ? QByteArrayLiteral("{\"cmd\":\"samples\",\"on\":true}\n")
              : QByteArrayLiteral("{\"cmd\":\"samples\",\"on\":false}\n");
}

namespace {
constexpr char kSamplePrefix[] = "{\"jolt\":";
}  // namespace

bool isThuzzSampleLine(const QByteArray& line) {
    return line.startsWith(kSamplePrefix);
}

std::optional<double> decodeThuzzSample(const QByteArray& line) {
    if (!isThuzzSampleLine(line) || !line.endsWith('}')) {
        return std::nullopt;
    }
    const char* first = line.constData() + sizeof kSamplePrefix - 1;
    const char* last = line.constData() + line.size() - 1;
    double jolt = 0;
    const auto [ptr, ec] = std::from_chars(first, last, jolt);
    if (first == last || ec != std::errc() || ptr != last || !std::isfinite(jolt) || jolt < 0) {
        return std::nullopt;
    }
    return jolt;
}

std::optional<ThuzzEvent> decodeThuzzEvent(const QByteArray& line) {
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        return std::nullopt;
    }
    const QJsonObject object = doc.object();
    const QJsonValue amplitude = object.value(QLatin1String("amplitude"));
    const QJsonValue slapNumber = object.value(QLatin1String("slapNumber"));
    const std::optional<std::int64_t> number = exactInteger(slapNumber);
    if (!amplitude.isDouble() || !number) {
        return std::nullopt;
    }
    ThuzzEvent event;
    event.amplitude = amplitude.toDouble();
    event.slapNumber = *number;
    const QJsonValue severity = object.value(QLatin1String("severity"));
    event.severity = severity.isString() ? severity.toString() : QString();
    return event;
}

void LineSplitter::append(const char* data, std::size_t size,
                          const std::function<void(const QByteArray&)>& onLine,
                          const std::function<void()>& onOverlong) {
    const char* const end = data + size;
    const char* cursor = data;
    while (cursor < end) {
        const auto* newline = static_cast<const char*>(
            std::memchr(cursor, '\n', static_cast<std::size_t>(end - cursor)));
        const char* pieceEnd = newline != nullptr ? newline : end;
        const auto pieceSize = static_cast<std::size_t>(pieceEnd - cursor);

        if (!discarding_) {
            if (static_cast<std::size_t>(pending_.size()) + pieceSize > maxLineBytes_) {
                // Too long to be anything we would act on: forget it as it streams past.
                discarding_ = true;
                pending_.clear();
                pending_.squeeze();
                onOverlong();
            } else {
                pending_.append(cursor, static_cast<qsizetype>(pieceSize));
            }
        }
        if (newline == nullptr) {
            break;
        }
        if (discarding_) {
            discarding_ = false;
        } else {
            const QByteArray lineBytes = pending_;
            pending_.clear();
            onLine(lineBytes);
        }
        cursor = newline + 1;
    }
}

}  // namespace bonkwell
