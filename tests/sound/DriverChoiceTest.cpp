// SPDX-License-Identifier: GPL-3.0-or-later
// Who serves the session's PulseAudio socket decides which output plays and, for SDL, which
// audio driver comes first.
#include "AudioAnalysis.h"
#include "ChoosingSoundOutput.h"
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
#include <memory>
#include <optional>
#include <vector>

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
        ::unlink(path.constData());  // a server that went before left its socket file
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

// Which output plays: our own PulseAudio stream where a real PulseAudio serves the session,
// SDL2_mixer elsewhere; decided again at every opening.
namespace {

using bonkwell::ChoosingSoundOutput;
using bonkwell::SoundOutput;
using bonkwell::Voice;
using Kind = ChoosingSoundOutput::Kind;

// An output that says which kind it was made as, and counts what is asked of it.
class KindOutput final : public SoundOutput {
  public:
    struct Log {
        std::vector<Kind> made;
        int plays = 0;
        int idles = 0;
    };
    KindOutput(Kind kind, Log& log) : kind_(kind), log_(log) { log_.made.push_back(kind); }
    std::unique_ptr<Voice> play(const QString& /*path*/, float /*gain*/, QString& error) override {
        ++log_.plays;
        error = kind_ == Kind::pulse ? QStringLiteral("pulse") : QStringLiteral("sdl");
        return nullptr;
    }
    void goIdle() override { ++log_.idles; }

  private:
    Kind kind_;
    Log& log_;
};

class OutputChoiceTest : public DriverChoiceTest {
  protected:
    OutputChoiceTest() { ::unsetenv("PULSE_SERVER"); }
    // The output that plays the next sound: "pulse" or "sdl".
    QString next() {
        QString error;
        output_.play(QStringLiteral("x.mp3"), 1.0F, error);
        return error;
    }
    KindOutput::Log log_;
    ChoosingSoundOutput output_{
        [this](Kind kind) { return std::make_unique<KindOutput>(kind, log_); }};
    ScopedEnv noSdlDriver_{"SDL_AUDIODRIVER", QString()};
};

TEST_F(OutputChoiceTest, ARealPulseAudioGetsOurOwnStream) {
    FakeSoundServer server(runtime_.path(), "pulseaudio");
    ASSERT_TRUE(server.listening());
    EXPECT_EQ(next(), "pulse");
}

TEST_F(OutputChoiceTest, PipeWireGetsSdl) {
    FakeSoundServer server(runtime_.path(), "pipewire-pulse");
    ASSERT_TRUE(server.listening());
    EXPECT_EQ(next(), "sdl");
}

TEST_F(OutputChoiceTest, NoServerAtAllGetsSdl) {
    EXPECT_EQ(next(), "sdl");
}

TEST_F(OutputChoiceTest, ANamedServerGetsOurOwnStream) {
    ScopedEnv named("PULSE_SERVER", QStringLiteral("unix:/nonexistent/bonkwell-test"));
    EXPECT_EQ(next(), "pulse");
}

TEST_F(OutputChoiceTest, AnSdlDriverNamedInTheEnvironmentGetsSdl) {
    FakeSoundServer server(runtime_.path(), "pulseaudio");
    ASSERT_TRUE(server.listening());
    ScopedEnv disk("SDL_AUDIODRIVER", QStringLiteral("disk"));
    EXPECT_EQ(next(), "sdl");
}

TEST_F(OutputChoiceTest, TheChoiceHoldsWhileOpenAndIsMadeAgainAfterIdle) {
    {
        FakeSoundServer server(runtime_.path(), "pulseaudio");
        ASSERT_TRUE(server.listening());
        EXPECT_EQ(next(), "pulse");
    }
    {
        FakeSoundServer server(runtime_.path(), "pipewire-pulse");
        ASSERT_TRUE(server.listening());
        EXPECT_EQ(next(), "pulse") << "the open output keeps playing until it goes idle";
        output_.goIdle();
        EXPECT_EQ(next(), "sdl") << "PipeWire took over the session while we were idle";
        EXPECT_EQ(next(), "sdl");
    }
    EXPECT_EQ(log_.made, (std::vector<Kind>{Kind::pulse, Kind::sdl}));
    EXPECT_EQ(log_.plays, 4);
}

TEST_F(OutputChoiceTest, AServerThatWentAwayKeepsTheOutputThatSawItGo) {
    {
        FakeSoundServer server(runtime_.path(), "pulseaudio");
        ASSERT_TRUE(server.listening());
        EXPECT_EQ(next(), "pulse");
    }
    output_.goIdle();
    // Nothing serves the socket now: the PulseAudio output waits for its server's return
    // (and has logged the outage once) rather than SDL logging it again.
    EXPECT_EQ(next(), "pulse");
    EXPECT_EQ(log_.made.size(), 1U);
}

TEST(OutputKindTest, EveryServer) {
    using bonkwell::sound::SoundServer;
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::pulseAudio, false, std::nullopt),
              Kind::pulse);
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::named, false, std::nullopt), Kind::pulse);
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::pipeWire, false, Kind::pulse), Kind::sdl);
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::none, false, std::nullopt), Kind::sdl);
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::none, false, Kind::pulse), Kind::pulse);
    EXPECT_EQ(ChoosingSoundOutput::kindFor(SoundServer::pulseAudio, true, Kind::pulse), Kind::sdl);
}

}  // namespace
