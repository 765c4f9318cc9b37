// SPDX-License-Identifier: GPL-3.0-or-later
// Which SDL audio driver comes first depends on who serves the session's PulseAudio socket.
#include "AudioAnalysis.h"
#include "SdlSoundOutput.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

using bonkwell::SdlSoundOutput;
using bonkwell::test::ScopedEnv;

namespace {

const QString kPulseFirst = QStringLiteral("pulseaudio,pipewire,alsa");
const QString kPipeWireFirst = QStringLiteral("pipewire,pulseaudio,alsa");

// A process named `name` listening on <runtime>/pulse/native, for the life of the object.
class FakeSoundServer {
  public:
    FakeSoundServer(const QString& runtime, const char* name) {
        QDir().mkpath(runtime + QStringLiteral("/pulse"));
        const QByteArray path = (runtime + QStringLiteral("/pulse/native")).toLocal8Bit();
        int ready[2];
        if (::pipe(ready) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_NAME, name);
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
            const bool ok =
                fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                ::listen(fd, 4) == 0;
            const char byte = ok ? '1' : '0';
            (void)!::write(ready[1], &byte, 1);
            for (;;) {
                ::pause();
            }
        }
        ::close(ready[1]);
        char byte = '0';
        listening_ = ::read(ready[0], &byte, 1) == 1 && byte == '1';
        ::close(ready[0]);
    }
    ~FakeSoundServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    FakeSoundServer(const FakeSoundServer&) = delete;
    FakeSoundServer& operator=(const FakeSoundServer&) = delete;
    bool listening() const { return listening_; }

  private:
    pid_t pid_ = -1;
    bool listening_ = false;
};

class DriverChoiceTest : public ::testing::Test {
  protected:
    QTemporaryDir runtime_;
    ScopedEnv runtimeEnv_{"XDG_RUNTIME_DIR", runtime_.path()};
};

TEST_F(DriverChoiceTest, PipeWireFirstWhenItServesThePulseSocket) {
    ::unsetenv("PULSE_SERVER");
    FakeSoundServer server(runtime_.path(), "pipewire-pulse");
    ASSERT_TRUE(server.listening());
    EXPECT_EQ(SdlSoundOutput::preferredAudioDrivers(), kPipeWireFirst);
}

TEST_F(DriverChoiceTest, PulseAudioFirstWhenARealPulseAudioServesIt) {
    ::unsetenv("PULSE_SERVER");
    FakeSoundServer server(runtime_.path(), "pulseaudio");
    ASSERT_TRUE(server.listening());
    EXPECT_EQ(SdlSoundOutput::preferredAudioDrivers(), kPulseFirst);
}

TEST_F(DriverChoiceTest, PulseAudioFirstWithoutAnySocket) {
    ::unsetenv("PULSE_SERVER");
    EXPECT_EQ(SdlSoundOutput::preferredAudioDrivers(), kPulseFirst);
}

TEST_F(DriverChoiceTest, AnExplicitServerIsLeftToPulseAudio) {
    FakeSoundServer server(runtime_.path(), "pipewire-pulse");
    ASSERT_TRUE(server.listening());
    ScopedEnv explicitServer("PULSE_SERVER", QStringLiteral("tcp:localhost"));
    EXPECT_EQ(SdlSoundOutput::preferredAudioDrivers(), kPulseFirst);
}

}  // namespace
