// SPDX-License-Identifier: GPL-3.0-or-later
#include "GravityCalibration.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

using namespace bonkwell;
using accel::Vec3;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kThreshold = 0.05;  // the default slap threshold, in g

// What the in-process rule measures: | |a| − 1 g |.
double magnitude(const Vec3& v) {
    return std::fabs(accel::length(v) - 1.0);
}

// A deterministic, roughly Gaussian noise source (no global state, same run every time).
class Noise {
  public:
    explicit Noise(std::uint32_t seed) : state_(seed * 2654435761u + 1u) {}
    double next(double sigma) {
        double sum = 0;
        for (int i = 0; i < 4; ++i) {
            state_ = state_ * 1664525u + 1013904223u;
            sum += static_cast<double>(state_ >> 8) / 16777216.0 - 0.5;
        }
        return sum * sigma * std::sqrt(3.0);
    }

  private:
    std::uint32_t state_;
};

// A sensor with a zero-g offset and a scale error per axis, noise and quantisation to
// 1/1024 g, held still with gravity along `down` (a unit vector).
struct Sensor {
    Vec3 bias;
    Vec3 scale{1, 1, 1};
    double noise = 0.004;
    Noise rng{7};

    Vec3 read(const Vec3& trueG) {
        auto q = [](double g) { return std::round(g * 1024.0) / 1024.0; };
        return Vec3{q(trueG.x * scale.x + bias.x + rng.next(noise)),
                    q(trueG.y * scale.y + bias.y + rng.next(noise)),
                    q(trueG.z * scale.z + bias.z + rng.next(noise))};
    }
};

std::string describe(const Vec3& v) {
    return "(" + std::to_string(v.x) + ", " + std::to_string(v.y) + ", " + std::to_string(v.z) +
           ")";
}

// Gravity in a few orientations a laptop is used in: flat, tilted, on its side, lid as a
// tablet leaning back.
const Vec3 kOrientations[] = {
    {0, 0, 1}, {0, 0.5, 0.8660254}, {1, 0, 0}, {0, -1, 0}, {0.57735, 0.57735, 0.57735},
};

TEST(GravityCalibrationTest, AStillBiasedSensorNeverComesNearTheThresholdFromTheFirstSample) {
    const double biases[] = {-0.1, -0.05, 0.0, 0.05, 0.1};
    const double scales[] = {0.95, 1.0, 1.05};
    int cases = 0;
    for (const Vec3& down : kOrientations) {
        for (double bx : biases) {
            for (double bz : biases) {
                for (double s : scales) {
                    for (double rate : {20.0, 100.0}) {
                        Sensor sensor;
                        sensor.bias = {bx, -bz * 0.6, bz};
                        sensor.scale = {s, 2.0 - s, s};
                        GravityCalibration calibration;
                        double worst = 0;
                        for (int i = 0; i < static_cast<int>(10 * rate); ++i) {
                            const Vec3 out = calibration.apply(sensor.read(down), i / rate);
                            worst = std::max(worst, magnitude(out));
                        }
                        ASSERT_LT(worst, kThreshold / 2)
                            << "gravity " << describe(down) << " bias " << describe(sensor.bias)
                            << " scale " << s << " at " << rate << " Hz";
                        ++cases;
                    }
                }
            }
        }
    }
    EXPECT_EQ(cases, 5 * 5 * 5 * 3 * 2);
}

TEST(GravityCalibrationTest, WithoutItTheSameSensorWouldReadAsAJoltAllTheTime) {
    // The case the calibration exists for: 40, −30, 1075 mg at rest.
    Sensor sensor;
    sensor.bias = {0.04, -0.03, 0.075};
    const Vec3 raw = sensor.read({0, 0, 1});
    EXPECT_GT(magnitude(raw), kThreshold);
    GravityCalibration calibration;
    EXPECT_LT(magnitude(calibration.apply(raw, 0.0)), 0.01);
}

// Still for two seconds, then a jolt of `peak` g along `direction` lasting `seconds`
// (half-sine), then still again. Returns the largest calibrated magnitude during the jolt.
double slapAfterRest(GravityCalibration& calibration, Sensor& sensor, const Vec3& down,
                     const Vec3& direction, double peak, double seconds, double rate) {
    double t = 0;
    const double dt = 1.0 / rate;
    for (; t < 2.0; t += dt) {
        calibration.apply(sensor.read(down), t);
    }
    double largest = 0;
    const double start = t;
    for (; t < start + seconds + 1e-9; t += dt) {
        const double a = peak * std::sin(kPi * (t - start) / seconds);
        const Vec3 g{down.x + direction.x * a, down.y + direction.y * a, down.z + direction.z * a};
        largest = std::max(largest, magnitude(calibration.apply(sensor.read(g), t)));
    }
    for (; t < start + 3.0; t += dt) {
        calibration.apply(sensor.read(down), t);
    }
    return largest;
}

TEST(GravityCalibrationTest, ASlapStillStandsOutAndIsNotTakenForTheRest) {
    Sensor sensor;
    sensor.bias = {0.08, -0.06, 0.1};
    GravityCalibration calibration;
    const double largest = slapAfterRest(calibration, sensor, {0, 0, 1}, {0, 0, 1}, 0.4, 0.1, 100);
    const double rest = calibration.restLength();
    // 0.4 g along gravity on a sensor that reads about 1.1 g at rest: about 0.36 g calibrated.
    EXPECT_GT(largest, 0.3);
    EXPECT_NEAR(rest, accel::length(Vec3{0.08, -0.06, 1.1}), 0.01);
}

TEST(GravityCalibrationTest, ALongPushIsFrozenOutWhileItLasts) {
    Sensor sensor;
    sensor.bias = {0.05, 0.05, -0.05};
    GravityCalibration calibration;
    const double before = accel::length(Vec3{0.05, 0.05, 0.95});
    // Half a second of 0.2 g: long, but nothing like rest.
    slapAfterRest(calibration, sensor, {0, 0, 1}, {0, 0, 1}, 0.2, 0.5, 100);
    EXPECT_NEAR(calibration.restLength(), before, 0.01);
}

TEST(GravityCalibrationTest, FollowsASlowTurnOfABiasedSensor) {
    // Turning the machine moves a biased sensor's length at rest from about 1.01 to 1.10 g.
    Sensor sensor;
    sensor.bias = {0.1, -0.08, 0.0};
    GravityCalibration calibration;
    const double rate = 50;
    double worst = 0;
    double t = 0;
    for (int i = 0; i < 5 * 50; ++i, t += 1 / rate) {
        calibration.apply(sensor.read({0, 0, 1}), t);
    }
    // A quarter turn over five seconds, then rest on its side.
    for (int i = 0; i <= 5 * 50; ++i, t += 1 / rate) {
        const double angle = (kPi / 2) * i / (5.0 * 50);
        const Vec3 down{std::sin(angle), 0, std::cos(angle)};
        worst = std::max(worst, magnitude(calibration.apply(sensor.read(down), t)));
    }
    for (int i = 0; i < 3 * 50; ++i, t += 1 / rate) {
        worst = std::max(worst, magnitude(calibration.apply(sensor.read({1, 0, 0}), t)));
    }
    EXPECT_LT(worst, kThreshold / 2);
    EXPECT_NEAR(calibration.restLength(), accel::length(Vec3{1.1, -0.08, 0}), 0.01);
    EXPECT_TRUE(calibration.settled());
}

TEST(GravityCalibrationTest, AStartInTheMiddleOfAJoltSettlesOnceTheMachineIsStill) {
    Sensor sensor;
    sensor.bias = {0.03, 0.02, 0.06};
    GravityCalibration calibration;
    calibration.apply(Vec3{0.2, 0.1, 1.4}, 0.0);  // the first sample is a bump
    EXPECT_FALSE(calibration.settled());
    double worstAfter = 0;
    for (int i = 1; i < 300; ++i) {
        const Vec3 out = calibration.apply(sensor.read({0, 0, 1}), i / 100.0);
        if (i >= 30) {  // once a still window has been seen
            worstAfter = std::max(worstAfter, magnitude(out));
        }
    }
    EXPECT_TRUE(calibration.settled());
    EXPECT_LT(worstAfter, 0.02);
}

TEST(GravityCalibrationTest, FreeFallAndNonsenseAreNeverTakenForRest) {
    GravityCalibration calibration;
    // A first reading of 3 g is no guess of the rest length.
    calibration.apply(Vec3{0, 0, 3.0}, 0.0);
    EXPECT_DOUBLE_EQ(calibration.restLength(), 1.0);
    // Half a second of free fall, perfectly still: still no rest.
    for (int i = 1; i < 50; ++i) {
        const Vec3 out = calibration.apply(Vec3{0, 0, 0}, i / 100.0);
        EXPECT_NEAR(magnitude(out), 1.0, 1e-12);
    }
    EXPECT_FALSE(calibration.settled());
    // Not-a-number passes through untouched and changes nothing.
    const Vec3 nan{std::nan(""), 0, 1};
    EXPECT_TRUE(std::isnan(calibration.apply(nan, 0.6).x));
    EXPECT_DOUBLE_EQ(calibration.restLength(), 1.0);
}

TEST(GravityCalibrationTest, ResetForgetsWhatWasLearnt) {
    Sensor sensor;
    sensor.bias = {0, 0, 0.1};
    GravityCalibration calibration;
    for (int i = 0; i < 100; ++i) {
        calibration.apply(sensor.read({0, 0, 1}), i / 100.0);
    }
    ASSERT_TRUE(calibration.settled());
    ASSERT_NEAR(calibration.restLength(), 1.1, 0.01);
    calibration.reset();
    EXPECT_FALSE(calibration.settled());
    EXPECT_DOUBLE_EQ(calibration.restLength(), 1.0);
    // And starts again from the next sample, whatever its time.
    const Vec3 out = calibration.apply(Vec3{0, 0, 0.9}, 0.0);
    EXPECT_NEAR(magnitude(out), 0.0, 1e-12);
}

}  // namespace
