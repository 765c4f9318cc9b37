// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundServer.h"

#include <QFile>
#include <QString>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace bonkwell::sound {

SoundServer sessionSoundServer() {
    if (qEnvironmentVariableIsSet("PULSE_SERVER")) {
        return SoundServer::named;
    }
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QByteArray socketPath = QFile::encodeName(runtime + QStringLiteral("/pulse/native"));
    sockaddr_un address{};
    if (runtime.isEmpty() || socketPath.size() >= static_cast<qsizetype>(sizeof address.sun_path)) {
        return SoundServer::none;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath.constData(), static_cast<size_t>(socketPath.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return SoundServer::none;
    }
    SoundServer result = SoundServer::none;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        result = SoundServer::pulseAudio;
        ucred peer{};
        socklen_t length = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid > 0) {
            QFile comm(QStringLiteral("/proc/%1/comm").arg(peer.pid));
            if (comm.open(QIODevice::ReadOnly) && comm.readAll().startsWith("pipewire")) {
                result = SoundServer::pipeWire;
            }
        }
    }
    ::close(fd);
    return result;
}

}  // namespace bonkwell::sound
