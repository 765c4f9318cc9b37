// SPDX-License-Identifier: GPL-3.0-or-later
// Value types shared by the core, detection, sound and UI libraries.
#pragma once

#include <QString>
#include <QStringList>

#include <array>
#include <cstdint>

namespace bonkwell {

// How the player picks a sound. Stored by raw value; an unknown raw value reads as random.
enum class PlayMode { random, escalation };

inline constexpr std::array<PlayMode, 2> kAllPlayModes{PlayMode::random, PlayMode::escalation};

inline QString rawValue(PlayMode mode) {
    return mode == PlayMode::escalation ? QStringLiteral("escalation") : QStringLiteral("random");
}

inline PlayMode playModeFromRawValue(const QString& raw) {
    return raw == QLatin1String("escalation") ? PlayMode::escalation : PlayMode::random;
}

// One sound pack: a folder of MP3 files. `files` are absolute paths sorted by file name.
struct SoundPack {
    QString name;
    QString directoryURL;
    QStringList files;
    bool isCustom = false;

    bool operator==(const SoundPack&) const = default;
};

// One slap reported by the detection helper.
struct ThuzzEvent {
    double amplitude = 0.0;  // g
    QString severity;        // "" when absent
    std::int64_t slapNumber = 0;

    bool operator==(const ThuzzEvent&) const = default;
};

// The helper's installation state, recomputed from the file system on every query.
enum class InstallState { bundleMissing, notInstalled, notSetuid, installed };

}  // namespace bonkwell
