// SPDX-License-Identifier: GPL-3.0-or-later
// A private PulseAudio server with a null sink, in a runtime folder of its own (nothing of the
// user's session is touched), and a recorder on the sink's monitor.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStandardPaths>
#include <QString>
#include <QTemporaryDir>

#include <pulse/error.h>
#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace bonkwell::test {

class PrivatePulseServer {
  public:
    static constexpr const char* kSink = "bonkwelltest";

    // Empty when the server program is there; otherwise what is missing.
    static QString missing() {
        return QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty()
                   ? QStringLiteral("pulseaudio is not installed (run scripts/install-deps)")
                   : QString();
    }

    explicit PrivatePulseServer(const QString& runtime) : runtime_(runtime) {}
    ~PrivatePulseServer() { kill(); }
    PrivatePulseServer(const PrivatePulseServer&) = delete;
    PrivatePulseServer& operator=(const PrivatePulseServer&) = delete;

    // Starts the server and waits (at most 10 s) until it answers; false with `error` set.
    bool start(QString& error) {
        process_.setProcessEnvironment(environment());
        process_.setProcessChannelMode(QProcess::MergedChannels);
        process_.start(QStringLiteral("pulseaudio"),
                       {QStringLiteral("-n"), QStringLiteral("--daemonize=no"),
                        QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--disallow-exit"),
                        QStringLiteral("--use-pid-file=no"), QStringLiteral("--log-level=error"),
                        QStringLiteral("--log-target=stderr"), QStringLiteral("-L"),
                        QStringLiteral("module-native-protocol-unix"), QStringLiteral("-L"),
                        QStringLiteral("module-null-sink sink_name=%1 rate=48000 channels=2")
                            .arg(QLatin1String(kSink))});
        if (!process_.waitForStarted(5000)) {
            error = QStringLiteral("pulseaudio did not start: %1").arg(process_.errorString());
            return false;
        }
        for (int i = 0; i < 100; ++i) {
            if (pactl({QStringLiteral("info")}).contains("Server Name")) {
                return true;
            }
            if (process_.state() == QProcess::NotRunning) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        error = QStringLiteral("pulseaudio does not answer: %1")
                    .arg(QString::fromLocal8Bit(process_.readAll()));
        return false;
    }

    // SIGKILL, as a crash would.
    void kill() {
        if (process_.state() != QProcess::NotRunning) {
            process_.kill();
            process_.waitForFinished(5000);
        }
    }

    // pactl's output for `arguments`, against this server.
    QByteArray pactl(const QStringList& arguments) const {
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral("pactl"), arguments);
        if (!p.waitForFinished(5000)) {
            p.kill();
            p.waitForFinished();
            return {};
        }
        return p.readAllStandardOutput();
    }

    // How many playback streams the server has.
    int playbackStreams() const {
        return static_cast<int>(
            pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sink-inputs")})
                .count('\n'));
    }

  private:
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("PULSE_SERVER"));
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_);
        env.insert(QStringLiteral("HOME"), runtime_);
        return env;
    }

    QString runtime_;
    QProcess process_;
};

// Records the null sink's monitor (the server of $XDG_RUNTIME_DIR) for the life of the object:
// 48 kHz, the left channel as floats.
class MonitorRecorder {
  public:
    MonitorRecorder() {
        const pa_sample_spec format{PA_SAMPLE_S16NE, 48000, 2};
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<std::uint32_t>(-1);
        attr.fragsize = 256 * 4;
        const std::string monitor = std::string(PrivatePulseServer::kSink) + ".monitor";
        int error = 0;
        stream_ = pa_simple_new(nullptr, "Bonkwell test", PA_STREAM_RECORD, monitor.c_str(),
                                "monitor", &format, nullptr, &attr, &error);
        if (stream_ == nullptr) {
            error_ = QString::fromUtf8(pa_strerror(error));
            return;
        }
        thread_ = std::thread([this] {
            std::vector<std::int16_t> block(256 * 2);
            int error = 0;
            while (!stop_ && pa_simple_read(stream_, block.data(), block.size() * 2, &error) == 0) {
                std::lock_guard lock(mutex_);
                for (std::size_t i = 0; i < block.size(); i += 2) {
                    left_.push_back(static_cast<float>(block[i]) / 32768.0F);
                }
            }
        });
    }
    ~MonitorRecorder() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        if (stream_ != nullptr) {
            pa_simple_free(stream_);
        }
    }
    MonitorRecorder(const MonitorRecorder&) = delete;
    MonitorRecorder& operator=(const MonitorRecorder&) = delete;

    // Empty when recording runs; otherwise why not.
    QString error() const { return error_; }
    // How many frames have been recorded so far.
    std::size_t frames() const {
        std::lock_guard lock(mutex_);
        return left_.size();
    }
    std::vector<float> left() const {
        std::lock_guard lock(mutex_);
        return left_;
    }

  private:
    pa_simple* stream_ = nullptr;
    QString error_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<float> left_;
};

}  // namespace bonkwell::test
