// SPDX-License-Identifier: GPL-3.0-or-later
#include "SingleInstance.h"

#include "Log.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>
#include <QLockFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace bonkwell {
namespace {

const QByteArray kShowRequest = QByteArrayLiteral("show\n");
const QByteArray kShownReply = QByteArrayLiteral("shown\n");
constexpr qsizetype kMaxTokenLength = 512;

// "show\n", or "show TOKEN\n" with the launcher's activation token of this start, which lets
// the running copy bring its panel forward where the compositor asks for one (Wayland).
QByteArray showRequest() {
    QByteArray token = qgetenv("XDG_ACTIVATION_TOKEN");
    if (token.isEmpty()) {
        token = qgetenv("DESKTOP_STARTUP_ID");
    }
    if (token.isEmpty() || token.size() > kMaxTokenLength || token.contains('\n') ||
        token.contains(' ')) {
        return kShowRequest;
    }
    return "show " + token + "\n";
}

// The token of a show request; nullopt when the line is not one.
std::optional<QString> tokenOf(const QByteArray& line) {
    if (line == kShowRequest) {
        return QString();
    }
    if (!line.startsWith("show ") || !line.endsWith('\n')) {
        return std::nullopt;
    }
    const QByteArray token = line.mid(5, line.size() - 6);
    if (token.isEmpty() || token.size() > kMaxTokenLength) {
        return std::nullopt;
    }
    for (const char c : token) {
        if (c <= ' ' || c > '~') {
            return std::nullopt;
        }
    }
    return QString::fromLatin1(token);
}

// Makes `folder` (mode 0700) or takes the one there, but only a real folder (never a link)
// that this user owns: whoever owns it could answer in our place, and a link would make us
// change and write into a folder of somebody else's choice.
bool privateFolder(const QString& folder, QString& why) {
    const QByteArray path = QFile::encodeName(folder);
    if (!QDir().mkpath(QFileInfo(folder).absolutePath()) ||
        (::mkdir(path.constData(), 0700) != 0 && errno != EEXIST)) {
        why = QStringLiteral("cannot create %1").arg(folder);
        return false;
    }
    const int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        why = errno == ELOOP || errno == ENOTDIR
                  ? QStringLiteral("%1 is not a folder (a link or a file)").arg(folder)
                  : QStringLiteral("cannot create %1").arg(folder);
        return false;
    }
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0;
    if (ok && info.st_uid != ::getuid()) {
        why = QStringLiteral("%1 belongs to another user").arg(folder);
        ok = false;
    } else if (ok && (info.st_mode & 07777) != 0700 && ::fchmod(fd, 0700) != 0) {
        why = QStringLiteral("cannot create %1").arg(folder);
        ok = false;
    }
    ::close(fd);
    return ok;
}

}  // namespace

SingleInstance::SingleInstance(QString socketPath, int replyTimeoutMs)
    : socketPath_(std::move(socketPath)), replyTimeoutMs_(replyTimeoutMs) {}

SingleInstance::~SingleInstance() {
    if (server_) {
        server_->close();  // removes the socket file
    }
}

QString SingleInstance::defaultSocketPath() {
    return socketPathFor(qEnvironmentVariable("XDG_RUNTIME_DIR"),
                         QStringLiteral("/run/user/%1").arg(::getuid()),
                         qEnvironmentVariable("HOME"));
}

QString SingleInstance::socketPathFor(const QString& runtimeDir, const QString& userRunDir,
                                      const QString& home) {
    if (!runtimeDir.isEmpty() && QDir::isAbsolutePath(runtimeDir)) {
        return runtimeDir + QStringLiteral("/bonkwell/instance");
    }
    // Without a session runtime folder: the user's own one if the system made it, else the
    // home folder. Never a shared folder such as /tmp, where another user could get there first.
    struct stat info {};
    if (::lstat(QFile::encodeName(userRunDir).constData(), &info) == 0 && S_ISDIR(info.st_mode) &&
        info.st_uid == ::getuid() && (info.st_mode & 077) == 0) {
        return userRunDir + QStringLiteral("/bonkwell/instance");
    }
    if (!home.isEmpty() && QDir::isAbsolutePath(home)) {
        return home + QStringLiteral("/.cache/bonkwell/instance");
    }
    return {};
}

void SingleInstance::setShowRequestHandler(std::function<void()> handler) {
    handler_ = std::move(handler);
}

SingleInstance::Ask SingleInstance::askRunningCopy(QString* error) {
    QLocalSocket socket;
    socket.connectToServer(socketPath_);
    if (!socket.waitForConnected(replyTimeoutMs_)) {
        const auto code = socket.error();
        if (code == QLocalSocket::ServerNotFoundError ||
            code == QLocalSocket::ConnectionRefusedError) {
            return Ask::nobody;  // no socket, or one left behind by a copy that crashed
        }
        *error = socket.errorString();
        return Ask::noAnswer;
    }
    socket.write(showRequest());
    QByteArray reply;
    while (!reply.endsWith('\n') && socket.waitForReadyRead(replyTimeoutMs_)) {
        reply += socket.readAll();
    }
    if (reply != kShownReply) {
        *error = QStringLiteral("the running copy did not answer");
        return Ask::noAnswer;
    }
    return Ask::answered;
}

std::optional<InstanceGuard::Role> SingleInstance::claim(QString* error) {
    QString ignored;
    QString& why = error != nullptr ? *error : ignored;
    if (socketPath_.isEmpty()) {
        why = QStringLiteral(
            "there is no private folder for the instance socket "
            "(neither XDG_RUNTIME_DIR nor HOME is set)");
        return std::nullopt;
    }
    const QString folder = QFileInfo(socketPath_).absolutePath();
    if (!privateFolder(folder, why)) {
        return std::nullopt;
    }
    // Two copies started together take turns: the lock makes "ask, else listen" one step.
    QLockFile lock(socketPath_ + QStringLiteral(".lock"));
    if (!lock.tryLock(replyTimeoutMs_ * 2)) {
        why = QStringLiteral("another start holds %1.lock").arg(socketPath_);
        return std::nullopt;
    }
    switch (askRunningCopy(&why)) {
        case Ask::answered:
            return Role::secondary;
        case Ask::noAnswer:
            return std::nullopt;
        case Ask::nobody:
            break;
    }
    QLocalServer::removeServer(socketPath_);
    auto server = std::make_unique<QLocalServer>();
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(socketPath_)) {
        why = QStringLiteral("cannot listen on %1: %2").arg(socketPath_, server->errorString());
        return std::nullopt;
    }
    connect(server.get(), &QLocalServer::newConnection, this, [this] { onNewConnection(); });
    server_ = std::move(server);
    return Role::primary;
}

void SingleInstance::onNewConnection() {
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > kMaxTokenLength + 16) {
                    socket->abort();  // not one of ours
                }
                return;
            }
            const QByteArray line = socket->readLine(kMaxTokenLength + 16);
            const std::optional<QString> token = tokenOf(line);
            if (!token) {
                logLine(QStringLiteral("Bonkwell: ignored a request on the instance socket"));
                socket->abort();
                return;
            }
            requestToken_ = *token;
            if (handler_) {
                handler_();
            }
            requestToken_.clear();
            socket->write(kShownReply);
            socket->flush();
            socket->disconnectFromServer();
        });
    }
}

}  // namespace bonkwell
