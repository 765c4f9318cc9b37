// SPDX-License-Identifier: GPL-3.0-or-later
// Recording doubles for the objects the state model drives. Every call lands, in order, in
// one shared journal so tests can assert the order across objects.
#pragma once

#include "AppState.h"
#include "Interfaces.h"
#include "PreferencesStore.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

namespace bonkwell::test {

struct CallJournal {
    QStringList calls;
};

class RecordingStore final : public PreferencesStore {
  public:
    RecordingStore(QString directory, CallJournal& journal)
        : PreferencesStore(std::move(directory)), journal_(journal) {}

    bool setData(const QString& key, const QByteArray& bytes, QString* error) override {
        journal_.calls.append(QStringLiteral("save"));
        writes.push_back(bytes);
        return PreferencesStore::setData(key, bytes, error);
    }

    // The snapshot of the n-th save.
    AppState::Snapshot savedSnapshot(std::size_t n) const {
        return AppState::Snapshot::decode(writes.at(n)).value();
    }

    std::vector<QByteArray> writes;

  private:
    CallJournal& journal_;
};

class RecordingDetector final : public SlapDetectorInterface {
  public:
    explicit RecordingDetector(CallJournal& journal) : journal_(journal) {}
    void setMinAmplitude(double g) override {
        journal_.calls.append(QStringLiteral("detector.minAmplitude=%1").arg(g));
        minAmplitude = g;
    }
    void setCooldown(double s) override {
        journal_.calls.append(QStringLiteral("detector.cooldown=%1").arg(s));
        cooldown = s;
    }
    void setOnMagnitudeSample(std::function<void(double)> handler) override {
        journal_.calls.append(QStringLiteral("detector.onMagnitudeSample"));
        onMagnitudeSample = std::move(handler);
    }
    void start() override { journal_.calls.append(QStringLiteral("detector.start")); }
    void stop() override { journal_.calls.append(QStringLiteral("detector.stop")); }

    double minAmplitude = 0;
    double cooldown = 0;
    std::function<void(double)> onMagnitudeSample;

  private:
    CallJournal& journal_;
};

class RecordingEngine final : public ThuzzEngineInterface {
  public:
    explicit RecordingEngine(CallJournal& journal) : journal_(journal) {}
    InstallState installState() const override { return state; }
    void start() override { journal_.calls.append(QStringLiteral("engine.start")); }
    void stop() override { journal_.calls.append(QStringLiteral("engine.stop")); }
    void updateTuning(double amplitude, std::int64_t cooldownMs) override {
        journal_.calls.append(
            QStringLiteral("engine.updateTuning(%1,%2)").arg(amplitude).arg(cooldownMs));
    }

    InstallState state = InstallState::notInstalled;

  private:
    CallJournal& journal_;
};

class RecordingAudio final : public AudioPlayerInterface {
  public:
    explicit RecordingAudio(CallJournal& journal) : journal_(journal) {}
    void resetTracker() override { journal_.calls.append(QStringLiteral("audio.resetTracker")); }

  private:
    CallJournal& journal_;
};

class FakePackManager final : public SoundPackManagerInterface {
  public:
    QStringList builtInPacks() const override {
        return {QStringLiteral("Pain"), QStringLiteral("Sexy"), QStringLiteral("Halo"),
                QStringLiteral("Lizard")};
    }
    QStringList customPacks() const override { return custom; }

    QStringList custom;
};

}  // namespace bonkwell::test
