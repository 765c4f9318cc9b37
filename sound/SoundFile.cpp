// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundFile.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

namespace bonkwell::sound {

std::optional<QByteArray> readSoundFile(const QString& path, qint64 maxBytes, QString& error) {
    const QByteArray name = QFile::encodeName(path);
    const int fd = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return std::nullopt;
    }
    struct stat st {};
    std::optional<QByteArray> result;
    if (::fstat(fd, &st) != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
    } else if (!S_ISREG(st.st_mode)) {
        error = QStringLiteral("not a regular file");
    } else if (st.st_size == 0) {
        error = QStringLiteral("the file is empty");
    } else if (st.st_size > maxBytes) {
        error = QStringLiteral("the file is too large (%1 MB; sounds over %2 MB are not played)")
                    .arg(static_cast<double>(st.st_size) / (1024.0 * 1024.0), 0, 'f', 1)
                    .arg(maxBytes / (1024 * 1024));
    } else {
        QByteArray data(static_cast<qsizetype>(st.st_size), Qt::Uninitialized);
        qsizetype got = 0;
        while (got < data.size()) {
            const ssize_t n = ::read(fd, data.data() + got, static_cast<size_t>(data.size() - got));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                error = QString::fromLocal8Bit(std::strerror(errno));
                break;
            }
            if (n == 0) {
                break;  // the file shrank while we read it: play what is there
            }
            got += n;
        }
        if (error.isEmpty()) {
            data.truncate(got);
            result = std::move(data);
        }
    }
    ::close(fd);
    return result;
}

void applyGain(std::int16_t* samples, std::size_t count, float gain) {
    if (gain == 1.0F) {
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<Sint16>(std::lrint(static_cast<float>(samples[i]) * gain));
    }
}

Mix_Chunk* decodeSound(const QByteArray& data, const FileLimits& limits, float gain,
                       QString& error) {
    // Measure first: decoding a long recording would take seconds and a lot of memory.
    if (Mix_Music* music = Mix_LoadMUS_RW(
            SDL_RWFromConstMem(data.constData(), static_cast<int>(data.size())), 1)) {
        const double seconds = Mix_MusicDuration(music);
        Mix_FreeMusic(music);
        if (seconds > limits.maxSeconds) {
            error = QStringLiteral("the sound is too long (%1 s; sounds over %2 s are not played)")
                        .arg(seconds, 0, 'f', 0)
                        .arg(limits.maxSeconds);
            return nullptr;
        }
    }
    Mix_Chunk* chunk =
        Mix_LoadWAV_RW(SDL_RWFromConstMem(data.constData(), static_cast<int>(data.size())), 1);
    if (chunk == nullptr) {
        error = QString::fromUtf8(SDL_GetError());
        return nullptr;
    }
    if (chunk->alen == 0) {
        Mix_FreeChunk(chunk);
        error = QStringLiteral("no sound could be decoded");
        return nullptr;
    }
    applyGain(reinterpret_cast<std::int16_t*>(chunk->abuf), chunk->alen / sizeof(std::int16_t),
              gain);
    return chunk;
}

}  // namespace bonkwell::sound
