// SPDX-License-Identifier: GPL-3.0-or-later
// Reading and measuring rendered audio: 16-bit interleaved stereo, as the player outputs.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

namespace bonkwell::test {

inline constexpr int kRate = 48000;

// The left channel of a raw S16 stereo file, as floats in -1 ... 1.
inline std::vector<float> readLeftChannel(const QString& path) {
    QFile file(path);
    std::vector<float> left;
    if (!file.open(QIODevice::ReadOnly)) {
        return left;
    }
    const QByteArray bytes = file.readAll();
    const auto* samples = reinterpret_cast<const std::int16_t*>(bytes.constData());
    const std::size_t frames = static_cast<std::size_t>(bytes.size()) / 4;
    left.reserve(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        left.push_back(static_cast<float>(samples[2 * i]) / 32768.0F);
    }
    return left;
}

struct Segment {
    std::size_t begin = 0;
    std::size_t end = 0;  // one past the last sounding sample
};

// Runs of sound separated by at least `gap` samples at or below `threshold`.
inline std::vector<Segment> soundingSegments(const std::vector<float>& s, float threshold = 0.002F,
                                             std::size_t gap = kRate / 20) {
    std::vector<Segment> out;
    std::size_t quiet = gap;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (std::fabs(s[i]) > threshold) {
            if (quiet >= gap) {
                out.push_back({i, i + 1});
            }
            out.back().end = i + 1;
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    return out;
}

inline double rms(const std::vector<float>& s, std::size_t begin, std::size_t end) {
    double sum = 0;
    for (std::size_t i = begin; i < end; ++i) {
        sum += static_cast<double>(s[i]) * s[i];
    }
    return end > begin ? std::sqrt(sum / static_cast<double>(end - begin)) : 0.0;
}

inline float peak(const std::vector<float>& s, std::size_t begin, std::size_t end) {
    float p = 0;
    for (std::size_t i = begin; i < end; ++i) {
        p = std::max(p, std::fabs(s[i]));
    }
    return p;
}

// Amplitude of the `hz` component in [begin, end) (Goertzel): a sine of amplitude A at that
// frequency reads about A.
inline double toneAmplitude(const std::vector<float>& s, std::size_t begin, std::size_t end,
                            double hz) {
    const double w = 2.0 * std::numbers::pi * hz / kRate;
    const double coeff = 2.0 * std::cos(w);
    double s1 = 0;
    double s2 = 0;
    for (std::size_t i = begin; i < end; ++i) {
        const double s0 = s[i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return 2.0 * std::sqrt(std::max(power, 0.0)) / static_cast<double>(end - begin);
}

// Amplitude of the `hz` component over `seconds` of a sound's steady part (from 50 ms after
// it starts, past the attack).
inline double steadyToneAmplitude(const std::vector<float>& s, const Segment& sound, double seconds,
                                  double hz) {
    const std::size_t begin = sound.begin + kRate / 20;
    return toneAmplitude(s, begin, begin + static_cast<std::size_t>(seconds * kRate), hz);
}

// Sets an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const QString& value) : name_(name) {
        const char* old = std::getenv(name);
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        ::setenv(name, qPrintable(value), 1);
    }
    ~ScopedEnv() {
        if (had_) {
            ::setenv(name_, old_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
    bool had_ = false;
    std::string old_;
};

}  // namespace bonkwell::test
