// SPDX-License-Identifier: GPL-3.0-or-later
// Detection quality of the helper's slap detector, printed as figures:
//  1. false slaps on a recorded walking trace (a phone held in the hand: no slaps at all);
//  2. recall, timing and amplitude error for synthetic slaps mixed into rest and into that
//     walking trace.
// Usage: accel_detection_quality <walking.csv>
#include "ImpactDetector.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using bonkwell::thuzz::Impact;
using bonkwell::thuzz::ImpactDetector;

namespace {

constexpr double kG = 9.80665;

struct Point {
    double t;
    double x, y, z;  // g
};

std::vector<Point> loadWalking(const char* path) {
    std::vector<Point> points;
    std::ifstream in(path);
    std::string line;
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
        points.push_back({v[0] * 1e-9, v[1] / kG, v[2] / kG, v[3] / kG});
    }
    return points;
}

// A machine at rest: 1 g with 3 mg of sensor noise, at `rate` Hz with optional jitter.
std::vector<Point> makeRest(double seconds, double rate, double jitter, std::mt19937& rng) {
    std::normal_distribution<double> noise(0.0, 0.003);
    std::uniform_real_distribution<double> wobble(-jitter, jitter);
    std::vector<Point> points;
    for (double t = 0; t < seconds; t += 1.0 / rate + wobble(rng)) {
        points.push_back({t, 0.17 + noise(rng), -0.08 + noise(rng), 0.98 + noise(rng)});
    }
    return points;
}

std::vector<Impact> detect(const std::vector<Point>& points, double minAmplitude) {
    ImpactDetector d(minAmplitude, 0.75);
    std::vector<Impact> impacts;
    for (const auto& p : points) {
        if (auto flushed = d.flush(p.t)) {
            impacts.push_back(*flushed);
        }
        if (auto impact = d.addSample(p.t, std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z))) {
            impacts.push_back(*impact);
        }
    }
    return impacts;
}

// The in-process rule for comparison: |len - 1| strictly above the threshold, cooldown.
int naiveCount(const std::vector<Point>& points, double minAmplitude) {
    double last = -1e9;
    int count = 0;
    for (const auto& p : points) {
        const double m = std::fabs(std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z) - 1.0);
        if (m > minAmplitude && p.t - last > 0.75) {
            last = p.t;
            ++count;
        }
    }
    return count;
}

struct Slap {
    double onset;
    double peak;  // g, the largest jolt of the waveform
    double dx, dy, dz;
};

// A slap on the case as the sensor delivers it (after its own low-pass filter): a jolt
// ringing at 20 Hz that dies away with a 15 ms time constant.
double waveform(double tau) {
    if (tau < 0) {
        return 0;
    }
    return std::exp(-tau / 0.015) * std::cos(2 * M_PI * 20.0 * tau);
}

// Directions are random, or (`vertical`) within 30 degrees of the machine's z axis, as for a
// slap on the palm rest of a laptop lying on a table.
std::vector<Slap> mixIn(std::vector<Point>& points, double amplitudeLow, double amplitudeHigh,
                        bool vertical, std::mt19937& rng) {
    std::vector<Slap> slaps;
    std::uniform_real_distribution<double> logAmp(std::log(amplitudeLow), std::log(amplitudeHigh));
    std::uniform_real_distribution<double> gap(1.5, 2.5);
    std::normal_distribution<double> dir(0, 1);
    const double start = points.front().t + 3.0;
    const double end = points.back().t - 1.0;
    for (double t = start; t < end; t += gap(rng)) {
        double dx = dir(rng), dy = dir(rng), dz = dir(rng);
        if (vertical) {
            const double tilt = std::uniform_real_distribution<double>(0, M_PI / 6)(rng);
            const double turn = std::uniform_real_distribution<double>(0, 2 * M_PI)(rng);
            dx = std::sin(tilt) * std::cos(turn);
            dy = std::sin(tilt) * std::sin(turn);
            dz = (rng() % 2 ? 1 : -1) * std::cos(tilt);
        }
        const double n = std::sqrt(dx * dx + dy * dy + dz * dz);
        slaps.push_back({t, std::exp(logAmp(rng)), dx / n, dy / n, dz / n});
    }
    for (auto& p : points) {
        for (const auto& s : slaps) {
            const double w = waveform(p.t - s.onset);
            if (w != 0) {
                p.x += s.peak * w * s.dx;
                p.y += s.peak * w * s.dy;
                p.z += s.peak * w * s.dz;
            }
        }
    }
    return slaps;
}

void score(const char* name, std::vector<Point> points, double low, double high, bool vertical,
           std::mt19937& rng) {
    const auto slaps = mixIn(points, low, high, vertical, rng);
    const auto impacts = detect(points, 0.05);
    int found = 0;
    double onsetError = 0, reportDelay = 0, maxDelay = 0, amplitudeError = 0;
    std::vector<bool> used(impacts.size(), false);
    for (const auto& s : slaps) {
        for (std::size_t i = 0; i < impacts.size(); ++i) {
            if (!used[i] && impacts[i].onsetTime >= s.onset - 0.02 &&
                impacts[i].onsetTime <= s.onset + 0.15) {
                used[i] = true;
                ++found;
                onsetError += impacts[i].onsetTime - s.onset;
                reportDelay += impacts[i].reportTime - s.onset;
                maxDelay = std::max(maxDelay, impacts[i].reportTime - s.onset);
                amplitudeError += std::fabs(impacts[i].amplitude - s.peak) / s.peak;
                break;
            }
        }
    }
    const int extra = static_cast<int>(impacts.size()) - found;
    std::printf(
        "%-34s %4zu slaps %.2f-%.2f g: recall %5.1f %%, %3d extra, onset %+5.1f ms, "
        "report after %5.1f ms (max %5.1f), amplitude error %4.1f %%\n",
        name, slaps.size(), low, high, 100.0 * found / static_cast<double>(slaps.size()), extra,
        found ? 1000 * onsetError / found : 0.0, found ? 1000 * reportDelay / found : 0.0,
        1000 * maxDelay, found ? 100 * amplitudeError / found : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <walking.csv>\n", argv[0]);
        return 2;
    }
    const auto walking = loadWalking(argv[1]);
    if (walking.size() < 1000) {
        std::fprintf(stderr, "cannot read the walking trace %s\n", argv[1]);
        return 1;
    }
    std::printf("Walking trace: %zu samples over %.1f s (no slaps in it)\n", walking.size(),
                walking.back().t - walking.front().t);
    for (double threshold : {0.05, 0.1, 0.2, 0.5}) {
        std::printf(
            "  min-amplitude %.2f g: %3zu false slaps (helper detector), %3d with a plain "
            "|a|-1 g threshold\n",
            threshold, detect(walking, threshold).size(), naiveCount(walking, threshold));
    }

    std::mt19937 rng(7);
    std::printf(
        "\nSynthetic slaps (20 Hz ring, 15 ms decay, log-uniform peak), min-amplitude "
        "0.05 g, cooldown 750 ms.\nRest is 1 g with 3 mg noise. A detection counts when "
        "its onset lies within -20..+150 ms of the slap.\n");
    for (bool vertical : {true, false}) {
        std::printf("%s\n", vertical ? "-- slaps within 30 degrees of vertical (palm rest)"
                                     : "-- slaps in random directions");
        score("rest, 100 Hz", makeRest(300, 100, 0, rng), 0.08, 1.5, vertical, rng);
        score("rest, 100 Hz, light taps", makeRest(300, 100, 0, rng), 0.05, 0.12, vertical, rng);
        score("rest, 33 Hz +-10 ms jitter", makeRest(300, 33, 0.01, rng), 0.08, 1.5, vertical, rng);
        score("walking trace, 100 Hz", walking, 0.08, 1.5, vertical, rng);
        score("walking trace, hard slaps", walking, 0.8, 2.0, vertical, rng);
    }
    return 0;
}
