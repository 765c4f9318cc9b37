// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonValue>

#include <cstdint>
#include <optional>

namespace bonkwell {

// A JSON number that is a whole number fitting a signed 64-bit integer, read exactly (not
// through a double); empty for anything else.
inline std::optional<std::int64_t> exactInteger(const QJsonValue& v) {
    if (!v.isDouble()) {
        return std::nullopt;
    }
    // toInteger answers its default unless the number is a whole qint64; two different
    // defaults tell a genuine 0 or 1 from a refusal.
    const qint64 a = v.toInteger(0);
    const qint64 b = v.toInteger(1);
    if (a != b) {
        return std::nullopt;
    }
    return a;
}

}  // namespace bonkwell
