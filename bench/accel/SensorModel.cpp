// SPDX-License-Identifier: GPL-3.0-or-later
#include "SensorModel.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace bonkwell::bench {

double norm(Vec a) {
    return std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z);
}

double dot(Vec a, Vec b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

namespace {

Vec cross(Vec a, Vec b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// Rodrigues: `v` turned by `angle` about the unit vector `k`.
Vec rotate(Vec v, Vec k, double angle) {
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    return c * v + s * cross(k, v) + (dot(k, v) * (1 - c)) * k;
}

double uniform(std::mt19937& rng, double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(rng);
}

}  // namespace

double slapShape(const Slap& slap, double t) {
    const double u = t - slap.start;
    if (u < 0 || t >= slap.end()) {
        return 0;
    }
    const double wave = std::sin(M_PI * u / slap.duration);
    return slap.ringing ? wave * std::exp(-u / (1.2 * slap.duration)) : wave;
}

bool loadTrace(const std::string& path, Trace& out, std::string& error) {
    constexpr double kG = 9.80665;
    constexpr double kWarmUp = 0.5;  // s at the start of a recording
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    out.name = path.substr(path.find_last_of('/') + 1);
    std::string line;
    double first = -1;
    while (std::getline(in, line)) {
        std::stringstream fields(line);
        std::string cell;
        double v[4] = {};
        for (int i = 0; i < 4 && std::getline(fields, cell, ','); ++i) {
            v[i] = std::stod(cell);
        }
        if (v[1] == 0 && v[2] == 0 && v[3] == 0) {
            continue;  // sensor warm-up row
        }
        const double t = v[0] * 1e-9;
        if (first < 0) {
            first = t;
        }
        if (t - first < kWarmUp) {
            continue;  // the phone's sensor settling from zero
        }
        if (!out.t.empty() && t - first - kWarmUp <= out.t.back()) {
            continue;
        }
        out.t.push_back(t - first - kWarmUp);
        out.a.push_back({v[1] / kG, v[2] / kG, v[3] / kG});
    }
    if (out.t.size() < 1000) {
        error = path + ": too few samples";
        return false;
    }
    return true;
}

Vec Scene::gravityAt(double t) const {
    Vec g = gravity;
    for (const auto& turn : turns) {
        if (t <= turn.start) {
            break;
        }
        const double p = std::min(1.0, (t - turn.start) / turn.duration);
        g = rotate(g, turn.axis, turn.angle * (1 - std::cos(M_PI * p)) / 2);
    }
    return g;
}

SensorUnit SensorUnit::random(std::mt19937& rng, double period) {
    SensorUnit unit;
    unit.bias = {uniform(rng, -0.1, 0.1), uniform(rng, -0.1, 0.1), uniform(rng, -0.1, 0.1)};
    unit.scale = {uniform(rng, 0.95, 1.05), uniform(rng, 0.95, 1.05), uniform(rng, 0.95, 1.05)};
    unit.phase = uniform(rng, 0, period);
    return unit;
}

std::vector<Reading> sense(Scene& scene, const SensorType& type, const SensorUnit& unit,
                           std::mt19937& rng) {
    const double period = 1.0 / type.rate;
    const double step = std::min(0.25e-3, period / 10);
    const double alpha = 1 - std::exp(-step * M_PI * type.rate);  // one pole at rate / 2
    const double quantum = type.inputDevice ? 0.001 : 1.0 / 1024;
    const double range = type.inputDevice ? 2.304 : 4.0;
    const double fuzz = 0.003;
    std::normal_distribution<double> noise(0, unit.noise);
    auto quantise = [&](double v) {
        return std::round(std::clamp(v, -range, range) / quantum) * quantum;
    };

    // Gravity, kept up to date step by step.
    std::size_t turn = 0;
    Vec settled = scene.gravity;
    std::size_t traceAt = 0;
    auto gravity = [&](double t) {
        if (scene.trace) {
            const auto& tr = *scene.trace;
            while (traceAt + 2 < tr.t.size() && tr.t[traceAt + 1] <= t) {
                ++traceAt;
            }
            const double span = tr.t[traceAt + 1] - tr.t[traceAt];
            const double p = std::clamp((t - tr.t[traceAt]) / span, 0.0, 1.0);
            return tr.a[traceAt] + p * (tr.a[traceAt + 1] - tr.a[traceAt]);
        }
        while (turn < scene.turns.size() &&
               t >= scene.turns[turn].start + scene.turns[turn].duration) {
            settled = rotate(settled, scene.turns[turn].axis, scene.turns[turn].angle);
            ++turn;
        }
        if (turn < scene.turns.size() && t > scene.turns[turn].start) {
            const auto& now = scene.turns[turn];
            const double p = (t - now.start) / now.duration;
            return rotate(settled, now.axis, now.angle * (1 - std::cos(M_PI * p)) / 2);
        }
        return settled;
    };
    std::size_t slapAt = 0;
    std::size_t bumpAt = 0;
    auto impulses = [](const std::vector<Slap>& list, std::size_t& at, double t) {
        while (at < list.size() && list[at].end() <= t) {
            ++at;
        }
        Vec sum;
        for (std::size_t i = at; i < list.size() && list[i].start <= t; ++i) {
            sum = sum + (list[i].amplitude * slapShape(list[i], t)) * list[i].direction;
        }
        return sum;
    };

    std::vector<Reading> out;
    out.reserve(static_cast<std::size_t>(scene.duration * type.rate) + 16);
    Vec lp = gravity(0);
    Vec lpSlap;
    int sampleIndex = 0;
    auto nextSampleTime = [&] {
        return unit.phase + sampleIndex * period +
               (type.jitter > 0 ? uniform(rng, -type.jitter, type.jitter) : 0.0);
    };
    double due = std::max(0.0, nextSampleTime());
    Vec held;
    bool any = false;
    long latestSlap = -1;
    for (double t = 0; t < scene.duration; t += step) {
        const Vec slaps = impulses(scene.slaps, slapAt, t);
        const Vec truth = gravity(t) + impulses(scene.bumps, bumpAt, t) + slaps;
        lp = lp + alpha * (truth - lp);
        lpSlap = lpSlap + alpha * (slaps - lpSlap);
        while (latestSlap + 1 < static_cast<long>(scene.slaps.size()) &&
               scene.slaps[static_cast<std::size_t>(latestSlap + 1)].start <= t) {
            ++latestSlap;
        }
        if (t < due) {
            continue;
        }
        if (latestSlap >= 0) {
            auto& slap = scene.slaps[static_cast<std::size_t>(latestSlap)];
            const Vec shown{quantise(lpSlap.x), quantise(lpSlap.y), quantise(lpSlap.z)};
            slap.delivered = std::max(slap.delivered, norm(shown));
        }
        Vec v{quantise(unit.scale.x * lp.x + unit.bias.x + noise(rng)),
              quantise(unit.scale.y * lp.y + unit.bias.y + noise(rng)),
              quantise(unit.scale.z * lp.z + unit.bias.z + noise(rng))};
        ++sampleIndex;
        due = std::max(t + step / 2, nextSampleTime());
        if (type.inputDevice) {
            // The input core: changes below half the fuzz are dropped, small ones averaged.
            auto defuzz = [&](double old, double value) {
                const double d = std::fabs(value - old);
                if (d < fuzz / 2) {
                    return old;
                }
                if (d < fuzz) {
                    return quantise((3 * old + value) / 4);
                }
                if (d < 2 * fuzz) {
                    return quantise((old + value) / 2);
                }
                return value;
            };
            if (any) {
                v = {defuzz(held.x, v.x), defuzz(held.y, v.y), defuzz(held.z, v.z)};
                if (v.x == held.x && v.y == held.y && v.z == held.z) {
                    continue;  // nothing changed: no event
                }
            }
            held = v;
            any = true;
        }
        out.push_back(Reading{t, v});
    }
    return out;
}

Vec randomUnit(std::mt19937& rng) {
    std::normal_distribution<double> n(0, 1);
    while (true) {
        const Vec v{n(rng), n(rng), n(rng)};
        const double l = norm(v);
        if (l > 1e-6) {
            return (1 / l) * v;
        }
    }
}

void addSlaps(Scene& scene, int count, double low, double high, bool axesOnly, std::mt19937& rng) {
    double t = 3.0;
    for (int i = 0; i < count; ++i) {
        Slap slap;
        slap.start = t;
        slap.duration = uniform(rng, 0.005, 0.020);
        slap.amplitude = std::exp(uniform(rng, std::log(low), std::log(high)));
        slap.ringing = rng() % 2 == 0;
        const int which = axesOnly ? 1 + i % 3 : i % 4;
        const double sign = rng() % 2 ? 1.0 : -1.0;
        slap.kind = static_cast<Direction>(which);
        switch (slap.kind) {
            case Direction::random:
                slap.direction = randomUnit(rng);
                break;
            case Direction::axisX:
                slap.direction = {sign, 0, 0};
                break;
            case Direction::axisY:
                slap.direction = {0, sign, 0};
                break;
            case Direction::axisZ:
                slap.direction = {0, 0, sign};
                break;
        }
        const Vec g = scene.gravityAt(t);
        slap.alongGravity = std::fabs(dot(slap.direction, g)) / norm(g) >= std::cos(M_PI / 4);
        scene.slaps.push_back(slap);
        t += uniform(rng, 1.6, 2.4);
    }
    scene.duration = std::max(scene.duration, t + 1.0);
}

void addTyping(Scene& scene, std::mt19937& rng) {
    for (double t = 0.5; t < scene.duration; t += 1.0 / uniform(rng, 5, 8)) {
        Slap bump;
        bump.start = t;
        bump.duration = uniform(rng, 0.008, 0.03);
        bump.amplitude = uniform(rng, 0.005, 0.03);
        const Vec g = scene.gravityAt(t);
        const Vec d = (1 / norm(g)) * g + 0.5 * randomUnit(rng);
        bump.direction = (1 / norm(d)) * d;
        scene.bumps.push_back(bump);
    }
}

void addTurns(Scene& scene, int count, std::mt19937& rng) {
    double t = 2.0;
    Vec g = scene.gravity;
    for (int i = 0; i < count; ++i) {
        Turn turn;
        turn.start = t;
        turn.duration = uniform(rng, 0.3, 1.0);
        turn.angle = uniform(rng, M_PI / 6, M_PI / 2) * (i % 2 ? -1 : 1);
        Vec axis = randomUnit(rng);
        axis = axis - (dot(axis, g) / dot(g, g)) * g;  // perpendicular to gravity
        turn.axis = (1 / norm(axis)) * axis;
        g = rotate(g, turn.axis, turn.angle);
        scene.turns.push_back(turn);
        t += turn.duration + uniform(rng, 2.0, 3.0);
    }
    scene.duration = std::max(scene.duration, t + 1.0);
}

}  // namespace bonkwell::bench
