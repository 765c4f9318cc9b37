// SPDX-License-Identifier: GPL-3.0-or-later
// What the tests on emulated accelerometers share: a umockdev testbed in the test process
// (which runs under umockdev-wrapper), writing a redirected sysfs file in place, and running
// the main event loop for a while.
#pragma once

#include <gtest/gtest.h>
#include <umockdev.h>

#include <QCoreApplication>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace bonkwell::test {

class Testbed {
  public:
    Testbed() : bed_(umockdev_testbed_new()) {}
    ~Testbed() { g_object_unref(bed_); }
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    void addFile(const std::string& path) {
        GError* error = nullptr;
        ASSERT_TRUE(umockdev_testbed_add_from_file(bed_, path.c_str(), &error))
            << (error ? error->message : "");
    }
    void addString(const std::string& text) {
        GError* error = nullptr;
        ASSERT_TRUE(umockdev_testbed_add_from_string(bed_, text.c_str(), &error))
            << (error ? error->message : "");
    }

  private:
    UMockdevTestbed* bed_;
};

// Overwrites a (redirected) sysfs file without replacing it: readers keep their descriptors.
inline void writeInPlace(const std::string& path, const std::string& value) {
    std::ofstream out(path, std::ios::trunc);
    out << value << '\n';
    ASSERT_TRUE(out.good()) << path;
}

// Runs the main event loop until `done` or the timeout; returns `done()`.
inline bool spinUntil(const std::function<bool()>& done, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

inline void spinFor(double seconds) {
    spinUntil([] { return false; }, seconds);
}

}  // namespace bonkwell::test
