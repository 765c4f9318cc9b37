// SPDX-License-Identifier: GPL-3.0-or-later
// thuzz-detector: watches the accelerometer and prints one JSON line per slap.
//
// Installed setuid root so that it can open the IIO buffer or the input device. It opens its
// device first, then drops to the calling user for good, and only then reads its input.
// It reads no environment and takes no path from its arguments.
//
// stdout: one line naming the device and rate when it starts, then one JSON object per slap,
//         {"amplitude":0.3125,"severity":"smack","slapNumber":1}, each written at once.
//         While samples are on, also one {"jolt":0.0123} line per reading of the sensor.
// stdin:  optional {"cmd":"set","amplitude":A,"cooldown":MS} lines, and
//         {"cmd":"samples","on":true|false} to turn the sample lines on or off (off at start);
//         other lines are ignored; end of input is fine.
// Exit:   0 on SIGTERM/SIGINT/SIGHUP or when stdout is gone, 1 on a failure while running,
//         2 on bad arguments, 3 when there is no accelerometer, 4 when this set-user-ID copy
//         is not the helper the package ships (reinstall it from Settings), 5 when started by
//         a user other than the owner of the folder this set-user-ID copy is installed in.
#include "AccelDevice.h"
#include "Guardian.h"
#include "ImpactDetector.h"
#include "Privileges.h"
#include "Protocol.h"
#include "Trust.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace bonkwell;

namespace {

// Writes all of `line` at once: nothing sits in a buffer.
bool writeAll(int fd, const std::string& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Writes a whole line with one write(2).
bool writeLine(int fd, const std::string& text) {
    return writeAll(fd, text + "\n");
}

void complain(const std::string& text) {
    writeLine(2, text);
}

std::string rateText(const accel::SampleSource& source) {
    if (source.rateHz() <= 0) {
        return "as the device reports";
    }
    char text[64];
    std::snprintf(text, sizeof text, "at %.1f Hz", source.rateHz());
    return text;
}

int armTimer(double rateHz) {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    const long long periodNs = static_cast<long long>(1e9 / rateHz);
    itimerspec timer{};
    timer.it_interval.tv_sec = periodNs / 1000000000LL;
    timer.it_interval.tv_nsec = periodNs % 1000000000LL;
    timer.it_value = timer.it_interval;
    ::timerfd_settime(fd, 0, &timer, nullptr);
    return fd;
}

class Helper {
  public:
    Helper(accel::SampleSource& source, const thuzz::Options& options)
        : source_(source),
          detector_(options.minAmplitude, static_cast<double>(options.cooldownMs) / 1000.0),
          lines_([this](std::string_view line) { onCommand(line); },
                 [] { complain("ignoring an overlong input line"); }) {}

    int run(int signalFd) {
        int timerFd = -1;
        if (source_.waitFd() < 0) {
            timerFd = armTimer(source_.rateHz());
            if (timerFd < 0) {
                complain(std::string("cannot create a timer: ") + std::strerror(errno));
                return 1;
            }
        }
        const int dataFd = timerFd >= 0 ? timerFd : source_.waitFd();
        bool stdinOpen = true;
        std::vector<accel::Sample> samples;
        while (true) {
            // stdout is watched for its reader going away (POLLERR/POLLHUP), stdin last.
            pollfd fds[4] = {{signalFd, POLLIN, 0}, {dataFd, POLLIN, 0}, {1, 0, 0}, {0, POLLIN, 0}};
            int timeout = -1;
            if (auto deadline = detector_.deadline()) {
                const double wait = *deadline - accel::monotonicNow();
                timeout = wait <= 0 ? 0 : static_cast<int>(std::ceil(wait * 1000.0));
            }
            const int ready = ::poll(fds, stdinOpen ? 4 : 3, timeout);
            if (ready < 0 && errno != EINTR) {
                complain(std::string("poll failed: ") + std::strerror(errno));
                return 1;
            }
            if ((fds[0].revents & POLLIN) || (fds[2].revents & (POLLERR | POLLHUP))) {
                return 0;
            }
            if (fds[1].revents & (POLLIN | POLLERR | POLLHUP)) {
                if (timerFd >= 0) {
                    std::uint64_t ticks = 0;
                    if (::read(timerFd, &ticks, sizeof ticks) < 0 && errno != EAGAIN) {
                        complain(std::string("timer failed: ") + std::strerror(errno));
                        return 1;
                    }
                }
                samples.clear();
                std::string error;
                if (!source_.read(samples, error)) {
                    complain(error);
                    return 1;
                }
                std::string sampleLines;
                for (const auto& sample : samples) {
                    auto impact =
                        detector_.addSample(sample.time, sample.g.x, sample.g.y, sample.g.z);
                    if (streamSamples_) {
                        sampleLines += thuzz::sampleLine(detector_.lastJolt()) + '\n';
                    }
                    if (impact && !report(*impact)) {
                        return 0;
                    }
                }
                // All the readings of one wake-up in one write.
                if (!sampleLines.empty() && !writeAll(1, sampleLines)) {
                    return 0;
                }
            }
            if (stdinOpen && fds[3].revents) {
                stdinOpen = readStdin();
            }
            if (auto impact = detector_.flush(accel::monotonicNow())) {
                if (!report(*impact)) {
                    return 0;
                }
            }
        }
    }

  private:
    // False once stdin is finished (end of input, or it cannot be read): not an error.
    bool readStdin() {
        char chunk[512];
        const ssize_t n = ::read(0, chunk, sizeof chunk);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
            return true;
        }
        if (n <= 0) {
            return false;
        }
        lines_.feed(std::string_view(chunk, static_cast<std::size_t>(n)));
        return true;
    }

    void onCommand(std::string_view line) {
        if (const std::optional<bool> on = thuzz::parseSamplesCommand(line)) {
            streamSamples_ = *on;
            return;
        }
        std::string why;
        auto command = thuzz::parseSetCommand(line, &why);
        if (!command) {
            if (!why.empty()) {
                complain("ignoring set command: " + why);
            }
            return;
        }
        if (command->amplitude) {
            detector_.setMinAmplitude(*command->amplitude);
        }
        if (command->cooldownMs) {
            detector_.setCooldown(static_cast<double>(*command->cooldownMs) / 1000.0);
        }
    }

    // False when stdout is gone: nobody is listening any more.
    bool report(const thuzz::Impact& impact) {
        return writeLine(1, thuzz::eventLine(impact.amplitude, impact.severity, impact.slapNumber));
    }

    accel::SampleSource& source_;
    thuzz::ImpactDetector detector_;
    thuzz::LineReader lines_;
    bool streamSamples_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    thuzz::sanitizeDescriptors();
    std::vector<std::string_view> args;
    for (int i = 1; i < argc; ++i) {
        args.emplace_back(argv[i]);
    }
    const auto parsed = thuzz::parseArguments(args);
    if (parsed.outcome == thuzz::ParseOutcome::version) {
        writeLine(1, "thuzz-detector " BONKWELL_VERSION);
        return 0;
    }
    if (parsed.outcome == thuzz::ParseOutcome::usage) {
        complain("thuzz-detector: " + parsed.error);
        std::fputs(thuzz::usageText(), stderr);
        return 2;
    }

    // Termination requests arrive through a descriptor, so the loop can restore the device.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGHUP);
    // A shell starts background jobs with SIGINT ignored; we want to hear it all the same.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGHUP, SIG_DFL);
    ::sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    const int signalFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    ::signal(SIGPIPE, SIG_IGN);

    std::string error;
    if (!thuzz::servesItsOwner(error)) {
        std::string ignored;
        thuzz::dropPrivileges(ignored);
        complain(error);
        return thuzz::kNotTheOwnersStatus;
    }
    if (!thuzz::isTrustedCopy()) {
        std::string ignored;
        thuzz::dropPrivileges(ignored);
        complain(thuzz::kOutOfDateLine);
        return thuzz::kOutOfDateStatus;
    }

    // As root, run the device as fast as is useful; everything changed is put back on exit.
    accel::OpenOptions openOptions;
    openOptions.maxPollHz = 200.0;
    openOptions.raiseRate = ::geteuid() == 0;
    auto opened = accel::openAccelerometer(openOptions);

    thuzz::Guardian guardian;  // puts the device back even when this process is killed
    if (opened.source && !guardian.start(*opened.source, error)) {
        complain(error);
    }
    if (!thuzz::dropPrivileges(error)) {
        complain("cannot drop privileges: " + error);
        return 1;
    }
    if (signalFd < 0) {
        complain(std::string("cannot watch for signals: ") + std::strerror(errno));
        return 1;
    }
    if (!opened.source) {
        complain(opened.matched == 0
                     ? "no accelerometer found (looked for IIO devices, input devices and "
                       "lis3lv02d/hdaps/applesmc position files)"
                     : "found " + std::to_string(opened.matched) +
                           " accelerometer(s) but could not open any: " + opened.error);
        return 3;
    }
    if (!opened.error.empty()) {
        complain("passed over: " + opened.error);  // better sources that did not work
    }
    auto& source = *opened.source;
    if (!writeLine(1, "reading " + source.description() + " through the " +
                          accel::kindName(source.kind()) + " " + rateText(source))) {
        return 0;
    }
    const int status = Helper(source, parsed.options).run(signalFd);
    source.restore();
    return status;
}
