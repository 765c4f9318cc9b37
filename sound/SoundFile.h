// SPDX-License-Identifier: GPL-3.0-or-later
// Reading and decoding a sound file for playback, shared by the outputs: the file is read
// without ever blocking (regular files only, up to a size limit), measured before it is
// decoded (up to a length limit) and decoded by SDL2_mixer into the open mixer's format, with
// the gain applied to the samples so that the level is exactly linear.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <optional>

struct Mix_Chunk;  // SDL2_mixer's decoded sound

namespace bonkwell::sound {

struct FileLimits {
    qint64 maxFileBytes = 16 * 1024 * 1024;
    double maxSeconds = 60.0;  // longer sounds are refused: they decode into memory
};

// The whole content of a regular file, or nullopt with `error` set (a FIFO named "x.mp3" is
// refused rather than waited on, as are empty and oversized files).
std::optional<QByteArray> readSoundFile(const QString& path, qint64 maxBytes, QString& error);

// Decodes `data` (MP3, WAV, …) into the format SDL2_mixer was opened with and multiplies the
// samples by `gain`. Needs an open mixer (Mix_OpenAudioDevice). Returns null with `error` set
// when the sound is too long, undecodable or empty. The caller frees the chunk.
Mix_Chunk* decodeSound(const QByteArray& data, const FileLimits& limits, float gain,
                       QString& error);

// Multiplies 16-bit samples by `gain`, rounding, so that the level is exactly linear.
void applyGain(std::int16_t* samples, std::size_t count, float gain);

}  // namespace bonkwell::sound
