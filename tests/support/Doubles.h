// SPDX-License-Identifier: GPL-3.0-or-later
// Recording doubles for the detection and sound objects. Every call lands, in order, in one
// shared journal so tests can assert the order across objects.
#pragma once

#include "AppState.h"
#include "Interfaces.h"
#include "PreferencesStore.h"

#include <QHash>
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
    void setOnSlap(std::function<void(double)> handler) override {
        journal_.calls.append(QStringLiteral("detector.onSlap"));
        onSlap = std::move(handler);
    }
    void start() override { journal_.calls.append(QStringLiteral("detector.start")); }
    void stop() override { journal_.calls.append(QStringLiteral("detector.stop")); }
    void addLiveViewer() override { ++liveViewers; }
    void removeLiveViewer() override { --liveViewers; }
    int liveViewers = 0;

    double minAmplitude = 0;
    double cooldown = 0;
    std::function<void(double)> onMagnitudeSample;
    std::function<void(double)> onSlap;

  private:
    CallJournal& journal_;
};

class RecordingEngine final : public ThuzzEngineInterface {
  public:
    explicit RecordingEngine(CallJournal& journal) : journal_(journal) {}
    InstallState installState() const override {
        ++installStateReads;
        return state;
    }
    void start() override { journal_.calls.append(QStringLiteral("engine.start")); }
    void stop() override { journal_.calls.append(QStringLiteral("engine.stop")); }
    void updateTuning(double amplitude, std::int64_t cooldownMs) override {
        journal_.calls.append(
            QStringLiteral("engine.updateTuning(%1,%2)").arg(amplitude).arg(cooldownMs));
    }
    void setMinAmplitude(double a) override {
        journal_.calls.append(QStringLiteral("engine.minAmplitude=%1").arg(a));
    }
    void setCooldownMs(std::int64_t ms) override {
        journal_.calls.append(QStringLiteral("engine.cooldownMs=%1").arg(ms));
    }
    void setOnEvent(std::function<void(const ThuzzEvent&)> handler) override {
        journal_.calls.append(QStringLiteral("engine.onEvent"));
        onEvent = std::move(handler);
    }
    void setOnStatus(std::function<void(const QString&)> handler) override {
        journal_.calls.append(QStringLiteral("engine.onStatus"));
        onStatus = std::move(handler);
    }
    void setOnSample(std::function<void(double)> handler) override {
        journal_.calls.append(QStringLiteral("engine.onSample"));
        onSample = std::move(handler);
    }
    void addLiveViewer() override { ++liveViewers; }
    void removeLiveViewer() override { --liveViewers; }
    int liveViewers = 0;
    std::function<void(double)> onSample;
    bool installHelper() override {
        journal_.calls.append(QStringLiteral("engine.installHelper"));
        if (duringInstall) {
            duringInstall();  // runs while the caller is blocked in the install
        }
        if (installSucceeds) {
            state = InstallState::installed;
        }
        return installSucceeds;
    }

    InstallState state = InstallState::notInstalled;
    bool installSucceeds = true;
    std::function<void()> duringInstall;
    mutable int installStateReads = 0;
    std::function<void(const ThuzzEvent&)> onEvent;
    std::function<void(const QString&)> onStatus;

  private:
    CallJournal& journal_;
};

class RecordingAudio final : public AudioPlayerInterface {
  public:
    explicit RecordingAudio(CallJournal& journal) : journal_(journal) {}
    void resetTracker() override { journal_.calls.append(QStringLiteral("audio.resetTracker")); }
    void playSlap(const SoundPack& pack, PlayMode mode, double amplitude, double userVolume,
                  bool volumeScaling) override {
        journal_.calls.append(QStringLiteral("audio.playSlap(%1,%2,%3,%4,%5)")
                                  .arg(pack.name, rawValue(mode))
                                  .arg(amplitude)
                                  .arg(userVolume)
                                  .arg(volumeScaling ? "scaled" : "flat"));
        if (onPlaySlap) {
            onPlaySlap();
        }
    }
    void playTest(const SoundPack& pack, double userVolume) override {
        journal_.calls.append(
            QStringLiteral("audio.playTest(%1,%2)").arg(pack.name).arg(userVolume));
    }
    // Called at each playSlap, after it is journaled.
    std::function<void()> onPlaySlap;

  private:
    CallJournal& journal_;
};

class FakePackManager final : public SoundPackManagerInterface {
  public:
    FakePackManager() = default;
    explicit FakePackManager(CallJournal& journal) : journal_(&journal) {}

    QStringList builtInPacks() const override {
        return {QStringLiteral("Pain"), QStringLiteral("Sexy"), QStringLiteral("Halo"),
                QStringLiteral("Lizard")};
    }
    QStringList customPacks() const override { return custom; }
    void bootstrapUserPacks() const override { record(QStringLiteral("packs.bootstrapUserPacks")); }
    SoundPack pack(const QString& name) const override {
        record(QStringLiteral("packs.pack(%1)").arg(name));
        SoundPack p;
        p.name = name;
        p.directoryURL = QStringLiteral("/nonexistent/") + name;
        p.files = files.value(name);
        p.isCustom = name == QLatin1String("Custom");
        return p;
    }
    void openCustomFolder() const override { record(QStringLiteral("packs.openCustomFolder")); }

    QStringList custom;
    QHash<QString, QStringList> files;  // pack name → its files

  private:
    void record(const QString& call) const {
        if (journal_ != nullptr) {
            journal_->calls.append(call);
        }
    }
    CallJournal* journal_ = nullptr;
};

}  // namespace bonkwell::test
