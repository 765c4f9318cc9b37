// SPDX-License-Identifier: GPL-3.0-or-later
// A model of what a laptop accelerometer delivers, for scoring slap detectors.
//
// A scene is the true acceleration of the machine over time, in g: gravity (turning when the
// lid or tablet is moved), a background (rest, typing, or a recorded walking trace) and slaps
// (5-20 ms half-sine or ringing impulses in a given direction). A sensor turns it into
// readings: an on-chip low-pass at half its rate, sampling at its rate with a random phase
// (and jitter), scale error and bias per axis, noise, clipping and quantisation; an input
// device also smooths small changes (fuzz) and sends only changed readings.
#pragma once

#include <random>
#include <string>
#include <vector>

namespace bonkwell::bench {

struct Vec {
    double x = 0, y = 0, z = 0;
};
inline Vec operator+(Vec a, Vec b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec operator-(Vec a, Vec b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec operator*(double k, Vec a) {
    return {k * a.x, k * a.y, k * a.z};
}
double norm(Vec a);
double dot(Vec a, Vec b);

enum class Direction { random, axisX, axisY, axisZ };

struct Slap {
    double start = 0;      // s
    double duration = 0;   // s, 5-20 ms
    double amplitude = 0;  // g, the peak of the impulse before the sensor
    bool ringing = false;  // a damped oscillation instead of one half-sine
    Vec direction;         // unit vector
    Direction kind = Direction::random;
    bool alongGravity = false;  // within 45 degrees of gravity (either sign)
    double delivered = 0;       // g, filled by the sensor: the best it can show of this slap
    double end() const { return start + (ringing ? 5 : 1) * duration; }
};
double slapShape(const Slap& slap, double t);  // scalar profile, 0 outside the slap

// Gravity turning by `angle` radians about `axis` over [start, start + duration] (raised
// cosine), and staying there.
struct Turn {
    double start = 0, duration = 0, angle = 0;
    Vec axis;
};

// A recorded trace (time in s from 0, acceleration in g with gravity), linearly interpolated.
// The first half second of a recording (its sensor settling from zero) is left out.
struct Trace {
    std::string name;
    std::vector<double> t;
    std::vector<Vec> a;
    double duration() const { return t.empty() ? 0 : t.back(); }
};
bool loadTrace(const std::string& path, Trace& out, std::string& error);

struct Scene {
    double duration = 0;
    Vec gravity{0, 0, 1};          // at rest, before any turn
    std::vector<Turn> turns;       // sorted, not overlapping
    std::vector<Slap> slaps;       // sorted, not overlapping
    std::vector<Slap> bumps;       // keystrokes: small impulses, sorted
    const Trace* trace = nullptr;  // replaces gravity and turns when set
    Vec gravityAt(double t) const;
};

struct SensorType {
    std::string name;
    double rate = 100;         // Hz
    double jitter = 0;         // s, uniform +- on each sample time
    bool inputDevice = false;  // milli-g counts, fuzz, change-only events
};

struct SensorUnit {  // one specimen of a sensor type
    Vec bias;        // g
    Vec scale{1, 1, 1};
    double phase = 0;      // s, of the first sample
    double noise = 0.002;  // g rms per axis
    static SensorUnit random(std::mt19937& rng, double period);
};

struct Reading {
    double t = 0;
    Vec g;
};

// The readings `unit` of `type` delivers for `scene`; fills each slap's `delivered`: the
// largest length of its own contribution over the samples (after the low-pass, the sampling
// phase and quantisation, before bias and noise).
std::vector<Reading> sense(Scene& scene, const SensorType& type, const SensorUnit& unit,
                           std::mt19937& rng);

// Scene builders.
Vec randomUnit(std::mt19937& rng);
void addSlaps(Scene& scene, int count, double low, double high, bool axesOnly, std::mt19937& rng);
void addTyping(Scene& scene, std::mt19937& rng);
void addTurns(Scene& scene, int count, std::mt19937& rng);

}  // namespace bonkwell::bench
