// SPDX-License-Identifier: GPL-3.0-or-later
// The line protocol between the app and the thuzz-detector helper: the launch words, the
// set command, event decoding and cutting the helper's standard output into lines.
// Pure functions and a plain value class; no threads, no I/O.
#pragma once

#include "SharedTypes.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace bonkwell {

// The six launch words: "--stdio" "--detect-only" "--min-amplitude" <%.4f> "--cooldown" <ms>.
// Locale-independent.
QStringList thuzzLaunchArguments(double minAmplitude, std::int64_t cooldownMs);

// `value` in the shortest decimal form that reads back as the same double, always with a
// fractional part or an exponent: 0.05 -> "0.05", 1.0 -> "1.0", 0.00001 -> "1e-05",
// 1e16 -> "1e+16". Exponent form below 1e-4 and from 1e16 up. Non-finite values give
// "nan", "inf" or "-inf".
std::string shortestRoundTrip(double value);

// {"cmd":"set","amplitude":A,"cooldown":C} and a newline. std::nullopt when `amplitude`
// is not finite (no JSON text can carry it).
std::optional<QByteArray> thuzzSetCommand(double amplitude, std::int64_t cooldownMs);

// {"cmd":"samples","on":true} or …false… and a newline: asks the helper to start or stop
// printing one sample line per sensor reading.
QByteArray thuzzSamplesCommand(bool on);

// Whether a stdout line (without its newline) is a sample line: it starts with {"jolt":.
// Sample lines are never events and are never logged, whatever follows.
bool isThuzzSampleLine(const QByteArray& line);

// The jolt (g) of a sample line {"jolt":0.0123}; std::nullopt when the line is not exactly
// that shape with a finite, non-negative number.
std::optional<double> decodeThuzzSample(const QByteArray& line);

// One stdout line (without its newline) as a slap event, or std::nullopt when the line is
// not one: it must be a JSON object with a number "amplitude" and an integral number
// "slapNumber"; "severity" is taken when it is a string and is "" otherwise.
std::optional<ThuzzEvent> decodeThuzzEvent(const QByteArray& line);

// Cuts a byte stream into lines at 0x0A. Bytes after the last newline wait for the next
// chunk. A line longer than `maxLineBytes` is not kept: its bytes are discarded as they
// arrive (so memory stays bounded however long the line grows) and `onOverlong` is called
// once for it; the next line starts after its newline.
class LineSplitter {
  public:
    static constexpr std::size_t kDefaultMaxLineBytes = 64 * 1024;

    explicit LineSplitter(std::size_t maxLineBytes = kDefaultMaxLineBytes)
        : maxLineBytes_(maxLineBytes) {}

    // Calls `onLine` for every complete line in order and `onOverlong` once per dropped line.
    void append(const char* data, std::size_t size,
                const std::function<void(const QByteArray&)>& onLine,
                const std::function<void()>& onOverlong);

    // Bytes of the unfinished line held right now (0 while discarding an overlong one).
    std::size_t pendingBytes() const { return static_cast<std::size_t>(pending_.size()); }
    std::size_t maxLineBytes() const { return maxLineBytes_; }

  private:
    std::size_t maxLineBytes_;
    QByteArray pending_;
    bool discarding_ = false;
};

}  // namespace bonkwell
