// SPDX-License-Identifier: GPL-3.0-or-later
#include "ThuzzEngine.h"

#include "HelperInstall.h"
#include "Log.h"
#include "MainQueue.h"
#include "ThuzzEngineProcess.h"
#include "ThuzzEngineProtocol.h"

#include <QCoreApplication>
#include <QFile>
#include <QStringDecoder>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <mutex>

namespace bonkwell {

// What the background threads and queued tasks may reach. The readers and the termination
// watcher hold it weakly; a queued event holds it strongly.
struct ThuzzEngine::Shared {
    std::mutex bufferLock;
    LineSplitter buffer;     // guarded by bufferLock
    SampleHandler onSample;  // guarded by bufferLock

    // Main thread only.
    EventHandler onEvent;
    StatusHandler onStatus;
    bool alive = true;
};

namespace {

std::optional<QString> decodeUtf8(const char* data, std::size_t size) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(QByteArrayView(data, static_cast<qsizetype>(size)));
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text;
}

// True when the kernel will ignore set-user-ID bits for this process and its children.
bool noNewPrivileges() {
    return ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
}

bool onNoSuidMount(const QString& path) {
    struct statvfs vfs {};
    return ::statvfs(QFile::encodeName(path).constData(), &vfs) == 0 &&
           (vfs.f_flag & ST_NOSUID) != 0;
}

// Writes all of `bytes` to `fd`, ignoring failures (a full non-blocking pipe included),
// without letting a closed reader raise SIGPIPE in this process.
void writeIgnoringErrors(int fd, const QByteArray& bytes) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        return;
    }
    const bool socket = S_ISSOCK(st.st_mode);
    sigset_t pipeOnly;
    sigset_t previous;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
    bool raisedPipe = false;
    const char* data = bytes.constData();
    auto left = static_cast<std::size_t>(bytes.size());
    while (left > 0) {
        const ssize_t n = socket ? ::send(fd, data, left, MSG_NOSIGNAL) : ::write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            raisedPipe = errno == EPIPE && !socket;
            break;
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (raisedPipe) {
        // Consume the SIGPIPE our write left pending before unblocking it.
        const timespec zero{0, 0};
        sigtimedwait(&pipeOnly, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace

ThuzzEngine::ThuzzEngine() : shared_(std::make_shared<Shared>()) {}

ThuzzEngine::~ThuzzEngine() {
    shared_->alive = false;
    // The readers go (and wait for their threads); a running child is left alone (it sees
    // the end of its input, which it takes calmly).
    stdoutPipe_.reset();
    stderrPipe_.reset();
    closeCommandPipe();
}

void ThuzzEngine::setOnEvent(EventHandler handler) {
    shared_->onEvent = std::move(handler);
}

void ThuzzEngine::setOnStatus(StatusHandler handler) {
    shared_->onStatus = std::move(handler);
}

void ThuzzEngine::setOnSample(SampleHandler handler) {
    std::lock_guard lock(shared_->bufferLock);
    shared_->onSample = std::move(handler);
}

void ThuzzEngine::addLiveViewer() {
    if (++liveViewers_ == 1) {
        send(thuzzSamplesCommand(true));
    }
}

void ThuzzEngine::removeLiveViewer() {
    if (liveViewers_ <= 0) {
        fatal(QStringLiteral("ThuzzEngine::removeLiveViewer without a viewer"));
    }
    if (--liveViewers_ == 0) {
        send(thuzzSamplesCommand(false));
    }
}

void ThuzzEngine::send(const QByteArray& line) {
    if (stdinPipe_ >= 0 && isRunning()) {
        writeIgnoringErrors(stdinPipe_, line);
    }
}

void ThuzzEngine::closeCommandPipe() {
    if (stdinPipe_ >= 0) {
        ::close(stdinPipe_);
        stdinPipe_ = -1;
    }
}

void ThuzzEngine::report(const QString& status) const {
    if (shared_->onStatus) {
        shared_->onStatus(status);
    }
}

bool ThuzzEngine::isRunning() const {
    return process_ != nullptr && process_->isRunning();
}

void ThuzzEngine::start() {
    if (isRunning()) {
        return;
    }
    if (installState() != InstallState::installed) {
        report(ThuzzStatus::notInstalled);
        return;
    }
    if (noNewPrivileges()) {
        logLine(
            QStringLiteral("Bonkwell: this process runs with no_new_privs set, so the "
                           "set-user-ID helper will start without root rights"));
    }
    if (onNoSuidMount(installDir())) {
        logLine(QStringLiteral("Bonkwell: %1 is on a file system mounted nosuid, so the "
                               "set-user-ID helper will start without root rights")
                    .arg(installDir()));
    }
    const QString program = installDir() + QLatin1String(HelperInstall::kHelperName);
    const QStringList arguments = thuzzLaunchArguments(minAmplitude_, cooldownMs_);

    QString error;
    Pipe in;
    Pipe out;
    Pipe err;
    if (!in.open(&error) || !out.open(&error) || !err.open(&error)) {
        report(ThuzzStatus::launchFailedPrefix + error);
        return;
    }
    std::shared_ptr<ChildProcess> child =
        ChildProcess::launch(program, arguments, out.writeEnd, err.writeEnd, &error, in.readEnd);
    if (child == nullptr) {
        report(ThuzzStatus::launchFailedPrefix + error);
        return;
    }
    out.closeWriteEnd();
    err.closeWriteEnd();
    // Commands must never block the main thread: a helper that stops reading loses them.
    ::fcntl(in.writeEnd, F_SETFL, ::fcntl(in.writeEnd, F_GETFL) | O_NONBLOCK);
    closeCommandPipe();
    stdinPipe_ = in.takeWriteEnd();

    // Readers of an earlier child that has ended are dropped before the new ones start.
    stdoutPipe_.reset();
    stderrPipe_.reset();

    std::weak_ptr<Shared> weak = shared_;
    child->watchTermination([weak](int status) {
        // An engine that is gone is told nothing: it may have been the last thing before
        // the application object went too, and a post then is fatal.
        if (weak.expired() || QCoreApplication::instance() == nullptr) {
            return;
        }
        // Status 4: the installed copy is not the helper this version ships.
        const bool outOfDate = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 4;
        MainQueue::post([weak, outOfDate]() {
            const std::shared_ptr<Shared> shared = weak.lock();
            if (shared && shared->alive && shared->onStatus) {
                shared->onStatus(outOfDate ? ThuzzStatus::outOfDate : ThuzzStatus::stopped);
            }
        });
    });
    stdoutPipe_ =
        std::make_unique<PipeReader>(out.takeReadEnd(), [weak](const char* data, std::size_t size) {
            if (const std::shared_ptr<Shared> shared = weak.lock()) {
                handleStdout(shared, data, size);
            }
        });
    stderrPipe_ =
        std::make_unique<PipeReader>(err.takeReadEnd(), [](const char* data, std::size_t size) {
            if (size == 0) {
                return;
            }
            if (const std::optional<QString> text = decodeUtf8(data, size)) {
                logLine(QStringLiteral("thuzz-detector stderr: ") + *text);
            }
        });
    process_ = std::move(child);
    if (liveViewers_ > 0) {
        send(thuzzSamplesCommand(true));
    }
    report(ThuzzStatus::running);
}

void ThuzzEngine::stop() {
    if (process_ != nullptr) {
        process_->terminate();
        process_.reset();
    }
    stdoutPipe_.reset();
    stderrPipe_.reset();
    closeCommandPipe();
}

void ThuzzEngine::updateTuning(double amplitude, std::int64_t cooldownMs) {
    minAmplitude_ = amplitude;
    cooldownMs_ = cooldownMs;
    if (!isRunning()) {
        return;
    }
    const std::optional<QByteArray> line = thuzzSetCommand(amplitude, cooldownMs);
    if (!line) {
        logLine(QStringLiteral("Bonkwell: not sending a non-finite amplitude to thuzz-detector"));
        return;
    }
    send(*line);
}

void ThuzzEngine::handleStdout(const std::shared_ptr<Shared>& shared, const char* data,
                               std::size_t size) {
    if (size == 0) {
        return;
    }
    std::lock_guard lock(shared->bufferLock);
    shared->buffer.append(
        data, size,
        [&shared](const QByteArray& line) {
            if (isThuzzSampleLine(line)) {
                // Never logged: a live graph gets a hundred of these a second.
                const std::optional<double> jolt = decodeThuzzSample(line);
                if (jolt && shared->onSample) {
                    shared->onSample(*jolt);
                }
                return;
            }
            if (std::optional<ThuzzEvent> event = decodeThuzzEvent(line)) {
                MainQueue::post([strong = shared, event = std::move(*event)]() {
                    if (strong->onEvent) {
                        strong->onEvent(event);
                    }
                });
                return;
            }
            if (line.isEmpty()) {
                return;
            }
            if (const std::optional<QString> text =
                    decodeUtf8(line.constData(), static_cast<std::size_t>(line.size()))) {
                logLine(QStringLiteral("thuzz-detector: ") + *text);
            }
        },
        [&shared]() {
            logLine(QStringLiteral("Bonkwell: dropped a thuzz-detector output line longer "
                                   "than %1 bytes")
                        .arg(shared->buffer.maxLineBytes()));
        });
}

void ThuzzEngineTestAccess::handleStdout(ThuzzEngine& engine, const char* data, std::size_t size) {
    ThuzzEngine::handleStdout(engine.shared_, data, size);
}

std::size_t ThuzzEngineTestAccess::bufferedBytes(const ThuzzEngine& engine) {
    std::lock_guard lock(engine.shared_->bufferLock);
    return engine.shared_->buffer.pendingBytes();
}

}  // namespace bonkwell
