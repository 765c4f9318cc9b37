// SPDX-License-Identifier: GPL-3.0-or-later
// Detection quality of the two slap detection paths on a model of laptop sensors (see
// SensorModel.h), printed as figures:
//  - recall by delivered strength (1-2x, 2-4x, >4x the threshold) at rest and while typing;
//  - recall for slaps of at least 2x by direction: along gravity, across it, and per axis;
//  - false slaps: at rest on sensors biased up to +-100 mg per axis (first seconds included),
//    per hour of typing, per 10 lid or tablet movements, and on each recorded walking trace;
//  - the report delay after the first sample above the trigger level, in sample periods;
//  - the amplitude error against the delivered strength.
// The paths: the helper's detector, and the in-process rule fed through the in-process
// calibration. Usage: accel_detection_quality <walking.csv>...
#include "ImpactDetector.h"
#include "InProcessPath.h"
#include "SensorModel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

using namespace bonkwell::bench;

namespace {

constexpr double kThreshold = 0.05;  // g, the default
constexpr double kCooldown = 0.75;   // s, the default
constexpr int kLidUnits = 8;         // sensor units moved, per sensor type
constexpr int kLidMovesPerUnit = 100;

struct Event {
    double onset;   // first sample above the trigger level
    double report;  // when it was reported
    double amplitude;
};

std::vector<Event> runHelper(const std::vector<Reading>& readings) {
    bonkwell::thuzz::ImpactDetector detector(kThreshold, kCooldown);
    std::vector<Event> events;
    auto keep = [&](const bonkwell::thuzz::Impact& i) {
        events.push_back({i.onsetTime, i.reportTime, i.amplitude});
    };
    for (const auto& r : readings) {
        if (const auto due = detector.deadline(); due && *due < r.t) {
            if (auto impact = detector.flush(*due)) {
                keep(*impact);
            }
        }
        if (auto impact = detector.addSample(r.t, r.g.x, r.g.y, r.g.z)) {
            keep(*impact);
        }
    }
    if (const auto due = detector.deadline()) {
        if (auto impact = detector.flush(*due)) {
            keep(*impact);
        }
    }
    return events;
}

std::vector<Event> runInProcess(const std::vector<Reading>& readings) {
    InProcessCalibration calibration;
    std::vector<Event> events;
    double last = -1e9;
    for (const auto& r : readings) {
        const Vec c = calibration.apply(r.g, r.t);
        // Delivered to the rule as signed 16-bit counts of 1/1024 g.
        auto counts = [](double v) {
            return std::clamp(std::round(v * 1024), -32768.0, 32767.0) / 1024;
        };
        const double magnitude = std::fabs(norm({counts(c.x), counts(c.y), counts(c.z)}) - 1.0);
        if (magnitude > kThreshold && r.t - last > kCooldown) {
            last = r.t;
            events.push_back({r.t, r.t, magnitude});
        }
    }
    return events;
}

struct Path {
    const char* name;
    std::vector<Event> (*run)(const std::vector<Reading>&);
};

struct Ratio {
    int hit = 0, total = 0;
    void add(bool found) {
        hit += found;
        ++total;
    }
    std::string text() const {
        char s[32];
        if (total == 0) {
            return "    -   ";
        }
        std::snprintf(s, sizeof s, "%5.1f%%", 100.0 * hit / total);
        return std::string(s) + (hit == total ? "  " : "  ");
    }
};

struct Score {
    Ratio band[2][3];  // [rest, typing][1-2x, 2-4x, >4x]
    Ratio along, across, axis[3];
    int under = 0;         // slaps delivered below the threshold
    int extraInSlaps = 0;  // events that match no slap in the slap scenes
    int restFalse = 0, restUnits = 0;
    double restSeconds = 0;
    int typingFalse = 0;
    double typingHours = 0;
    int lidFalse = 0, lidMoves = 0;
    std::vector<int> walkFalse;
    std::vector<double> delays;  // sample periods
    std::vector<double> ampErrors;
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(p * static_cast<double>(v.size() - 1))];
}

// Matches events to slaps; returns the events that belong to none.
int scoreSlaps(const Scene& scene, const std::vector<Event>& events, double period, int bg,
               Score& score) {
    std::vector<bool> used(events.size(), false);
    for (const auto& slap : scene.slaps) {
        const Event* found = nullptr;
        for (std::size_t i = 0; i < events.size(); ++i) {
            if (!used[i] && events[i].onset >= slap.start - period &&
                events[i].onset <= slap.end() + 2 * period + 0.02) {
                used[i] = true;
                found = &events[i];
                break;
            }
        }
        const double strength = slap.delivered / kThreshold;
        if (strength <= 1.0) {
            ++score.under;
            continue;
        }
        score.band[bg][strength < 2 ? 0 : strength < 4 ? 1 : 2].add(found != nullptr);
        if (strength >= 2) {
            (slap.alongGravity ? score.along : score.across).add(found != nullptr);
            if (slap.kind != Direction::random) {
                score.axis[static_cast<int>(slap.kind) - 1].add(found != nullptr);
            }
        }
        if (found) {
            score.delays.push_back((found->report - found->onset) / period);
            score.ampErrors.push_back(std::fabs(found->amplitude - slap.delivered) /
                                      slap.delivered);
        }
    }
    return static_cast<int>(std::count(used.begin(), used.end(), false));
}

struct Setup {
    SensorType type;
    std::vector<Score> scores;  // per path
};

void runSensor(Setup& setup, const std::vector<Path>& paths, const std::vector<Trace>& traces,
               unsigned seed) {
    std::mt19937 rng(seed);
    const SensorType& type = setup.type;
    const double period = 1.0 / type.rate;
    setup.scores.assign(paths.size(), Score{});
    auto tilted = [&] {  // a machine on a table or a lap: within 20 degrees of level
        const Vec t = randomUnit(rng);
        const Vec g = Vec{0, 0, 1} + 0.35 * Vec{t.x, t.y, 0};
        return (1 / norm(g)) * g;
    };
    auto each = [&](Scene& scene, const SensorUnit& unit, auto&& use) {
        const auto readings = sense(scene, type, unit, rng);
        for (std::size_t p = 0; p < paths.size(); ++p) {
            use(setup.scores[p], paths[p].run(readings));
        }
    };
    // Slaps at rest and while typing, strengths log-uniform from the threshold to 2 g.
    for (int bg = 0; bg < 2; ++bg) {
        for (int part = 0; part < 2; ++part) {
            Scene scene;
            scene.gravity = tilted();
            addSlaps(scene, 120, kThreshold, 2.0, part == 1, rng);
            if (bg == 1) {
                addTyping(scene, rng);
            }
            each(scene, SensorUnit::random(rng, period), [&](Score& s, auto events) {
                s.extraInSlaps += scoreSlaps(scene, events, period, bg, s);
            });
        }
    }
    // Still, biased sensors: the corners of +-100 mg and random biases, 20 s each.
    for (int unitIndex = 0; unitIndex < 12; ++unitIndex) {
        Scene scene;
        scene.gravity = tilted();
        scene.duration = 20;
        auto unit = SensorUnit::random(rng, period);
        if (unitIndex < 8) {
            unit.bias = {unitIndex & 1 ? 0.1 : -0.1, unitIndex & 2 ? 0.1 : -0.1,
                         unitIndex & 4 ? 0.1 : -0.1};
        }
        each(scene, unit, [&](Score& s, auto events) {
            s.restFalse += static_cast<int>(events.size());
            s.restSeconds += scene.duration;
            ++s.restUnits;
        });
    }
    {  // An hour of typing.
        Scene scene;
        scene.gravity = tilted();
        scene.duration = 3600;
        addTyping(scene, rng);
        each(scene, SensorUnit::random(rng, period), [&](Score& s, auto events) {
            s.typingFalse += static_cast<int>(events.size());
            s.typingHours += 1;
        });
    }
    // The lid or tablet moved: gravity turning 30-90 degrees over 0.3-1 s, on several units,
    // enough moves for the rate of false slaps to be a stable figure.
    for (int unitIndex = 0; unitIndex < kLidUnits; ++unitIndex) {
        Scene scene;
        scene.gravity = tilted();
        addTurns(scene, kLidMovesPerUnit, rng);
        each(scene, SensorUnit::random(rng, period), [&](Score& s, auto events) {
            s.lidFalse += static_cast<int>(events.size());
            s.lidMoves += kLidMovesPerUnit;
        });
    }
    for (const auto& trace : traces) {
        Scene scene;
        scene.trace = &trace;
        scene.duration = trace.duration();
        each(scene, SensorUnit::random(rng, period), [&](Score& s, auto events) {
            s.walkFalse.push_back(static_cast<int>(events.size()));
        });
    }
}

void printDetails(const Setup& setup, const Path& path, const Score& s) {
    std::printf("\n%s, %s\n", path.name, setup.type.name.c_str());
    for (int bg = 0; bg < 2; ++bg) {
        std::printf("  recall %-7s 1-2x %s (%3d)  2-4x %s (%3d)  >4x %s (%3d)\n",
                    bg ? "typing" : "at rest", s.band[bg][0].text().c_str(), s.band[bg][0].total,
                    s.band[bg][1].text().c_str(), s.band[bg][1].total, s.band[bg][2].text().c_str(),
                    s.band[bg][2].total);
    }
    std::printf("  recall >=2x   along gravity %s (%3d)  across %s (%3d)  X %s  Y %s  Z %s\n",
                s.along.text().c_str(), s.along.total, s.across.text().c_str(), s.across.total,
                s.axis[0].text().c_str(), s.axis[1].text().c_str(), s.axis[2].text().c_str());
    std::printf("  %d slaps delivered at or below the threshold (not scored); %d extra events\n",
                s.under, s.extraInSlaps);
    std::string walk;
    for (int n : s.walkFalse) {
        walk += (walk.empty() ? "" : ", ") + std::to_string(n);
    }
    std::printf(
        "  false slaps: rest %d (%d biased units, %.0f s)  typing %.1f/h  lid %.2f per 10 "
        "moves (%d in %d)  walking traces %s\n",
        s.restFalse, s.restUnits, s.restSeconds, s.typingFalse / std::max(1e-9, s.typingHours),
        10.0 * s.lidFalse / std::max(1, s.lidMoves), s.lidFalse, s.lidMoves, walk.c_str());
    const auto within =
        std::count_if(s.delays.begin(), s.delays.end(), [](double d) { return d <= 1.0 + 1e-6; });
    std::printf(
        "  report delay <= 1 period %5.1f %%, max %.2f periods; amplitude error median %.1f %%, "
        "p90 %.1f %%\n",
        s.delays.empty()
            ? 0.0
            : 100.0 * static_cast<double>(within) / static_cast<double>(s.delays.size()),
        s.delays.empty() ? 0.0 : *std::max_element(s.delays.begin(), s.delays.end()),
        100 * percentile(s.ampErrors, 0.5), 100 * percentile(s.ampErrors, 0.9));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <walking.csv>...\n", argv[0]);
        return 2;
    }
    std::vector<Trace> traces(static_cast<std::size_t>(argc - 1));
    for (int i = 1; i < argc; ++i) {
        std::string error;
        if (!loadTrace(argv[i], traces[static_cast<std::size_t>(i - 1)], error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
    }
    const std::vector<Path> paths = {{"helper detector", runHelper},
                                     {"in-process rule", runInProcess}};
    std::vector<Setup> setups = {
        {{"20 Hz input device (fuzz, change-only)", 20, 0, true}, {}},
        {{"33 Hz IIO +-10 ms jitter", 33, 0.010, false}, {}},
        {{"50 Hz IIO", 50, 0, false}, {}},
        {{"100 Hz IIO", 100, 0, false}, {}},
        {{"100 Hz input device (fuzz, change-only)", 100, 0, true}, {}},
        {{"200 Hz IIO", 200, 0, false}, {}},
        {{"400 Hz IIO", 400, 0, false}, {}},
    };
    std::printf(
        "Slap detection on modelled laptop sensors: threshold %.2f g, cooldown %.0f ms.\n"
        "Slaps 5-20 ms (half-sine or ringing), strength log-uniform %.2f-2 g, random 3-D and "
        "axis directions, machine within 20 degrees of level; sensors biased up to +-100 mg "
        "and +-5 %% scale per axis, 2 mg noise, low-pass at half the rate, quantised.\n"
        "Strength = what the sensor delivers of the slap (its largest gravity-free jolt over "
        "the samples). In-process calibration: %s.\n",
        kThreshold, kCooldown * 1000, kThreshold, InProcessCalibration::description());
    unsigned seed = 11;
    for (auto& setup : setups) {
        runSensor(setup, paths, traces, seed++);
    }
    for (std::size_t p = 0; p < paths.size(); ++p) {
        for (const auto& setup : setups) {
            printDetails(setup, paths[p], setup.scores[p]);
        }
    }
    // One summary line per path and sensor.
    std::printf(
        "\nSummary (recall for slaps >= 2x the threshold; false slaps at the default "
        "threshold)\n%-16s %-40s %7s %7s %7s %7s %6s %7s %6s %6s %7s %7s\n",
        "path", "sensor", "rest", "typing", "along", "across", "rest", "typ/h", "lid/10", "walk",
        "dly<=1", "amp.err");
    for (std::size_t p = 0; p < paths.size(); ++p) {
        for (const auto& setup : setups) {
            const Score& s = setup.scores[p];
            Ratio rest = s.band[0][1], typing = s.band[1][1];
            rest.hit += s.band[0][2].hit;
            rest.total += s.band[0][2].total;
            typing.hit += s.band[1][2].hit;
            typing.total += s.band[1][2].total;
            const int walkMax =
                s.walkFalse.empty() ? 0 : *std::max_element(s.walkFalse.begin(), s.walkFalse.end());
            const auto within = std::count_if(s.delays.begin(), s.delays.end(),
                                              [](double d) { return d <= 1.0 + 1e-6; });
            std::printf("%-16s %-40s %7s %7s %7s %7s %6d %7.1f %6.2f %6d %6.1f%% %6.1f%%\n",
                        paths[p].name, setup.type.name.c_str(), rest.text().c_str(),
                        typing.text().c_str(), s.along.text().c_str(), s.across.text().c_str(),
                        s.restFalse, s.typingFalse / std::max(1e-9, s.typingHours),
                        10.0 * s.lidFalse / std::max(1, s.lidMoves), walkMax,
                        s.delays.empty() ? 0.0
                                         : 100.0 * static_cast<double>(within) /
                                               static_cast<double>(s.delays.size()),
                        100 * percentile(s.ampErrors, 0.5));
        }
    }
    return 0;
}
