// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Clock.h"
#include "Interfaces.h"
#include "Observable.h"
#include "PreferencesStore.h"
#include "SharedTypes.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace bonkwell {

// Seconds to whole milliseconds, truncated toward zero. A non-finite or out-of-range value
// is a programming fault (the sliders bound the cooldown) and stops the process.
std::int64_t cooldownMilliseconds(double seconds);

// The one observable model of the app: the user's settings, the slap counters, the live
// accelerometer magnitude and the engine status. Views read and assign the published
// properties directly; bind() turns each change into its effect and a save.
// Views with a live graph hold it as a LiveSampleSource: it passes each viewer on to both
// detection paths, whichever feeds liveMagnitude at the time.
// Lives on the main thread.
class AppState : public QObject, public LiveSampleSource {
  public:
    // The persisted settings: one compact JSON object of exactly these eleven members.
    struct Snapshot {
        bool listeningEnabled = true;
        double sensitivity = 0.05;
        double cooldown = 0.75;
        double volume = 1.0;
        bool volumeScaling = true;
        QString mode = QStringLiteral("random");
        QString selectedPackName = QStringLiteral("Pain");
        std::int64_t todayCount = 0;
        std::int64_t totalCount = 0;
        Date lastCountDate;
        bool launchAtLogin = false;

        // Empty when a double is not finite (JSON has no form for it).
        std::optional<QByteArray> encode() const;
        // All or nothing: empty unless `bytes` is a JSON object with all eleven members of
        // the right types. Unknown members are ignored.
        static std::optional<Snapshot> decode(const QByteArray& bytes);

        bool operator==(const Snapshot&) const = default;
    };

    static inline const QString defaultsKey = QStringLiteral("BonkwellState.v1");
    static constexpr std::size_t kMaxLiveSamples = 600;

    // Settings persist in `store` (null: the user's standard store, owned by the model);
    // `clock` (null: the system clock) supplies "now" for the counters. Neither is owned.
    explicit AppState(PreferencesStore* store = nullptr, const Clock* clock = nullptr);
    ~AppState() override;

    // Published properties, in declaration order.
    Published<bool> listeningEnabled{true};
    Published<double> sensitivity{0.05};
    Published<double> cooldown{0.75};
    Published<double> volume{1.0};
    Published<bool> volumeScaling{true};
    Published<PlayMode> mode{PlayMode::random};
    Published<QString> selectedPackName{QStringLiteral("Pain")};
    Published<QStringList> availablePacks{{QStringLiteral("Pain"), QStringLiteral("Sexy"),
                                           QStringLiteral("Halo"), QStringLiteral("Lizard")}};
    Published<std::int64_t> todayCount{0};
    Published<std::int64_t> totalCount{0};
    Published<Date> lastCountDate;
    Published<bool> launchAtLogin{false};
    Published<double> liveMagnitude{0.0};
    Published<std::vector<double>> liveSeries;
    Published<QString> engineStatus{QStringLiteral("Idle")};

    // Set by bind(); not owned.
    SlapDetectorInterface* detector = nullptr;
    AudioPlayerInterface* audio = nullptr;
    SoundPackManagerInterface* packManager = nullptr;
    ThuzzEngineInterface* engine = nullptr;
    std::vector<Subscription> cancellables;

    void refreshAvailablePacks(const SoundPackManagerInterface& from);
    void load();
    void save();
    void bind(SlapDetectorInterface* detector, AudioPlayerInterface* audio,
              SoundPackManagerInterface* packManager, ThuzzEngineInterface* engine);
    void bumpCounts();
    // bumpCounts() without the save: the slap handler starts the sound first and saves after,
    // since a durable save (two fsyncs) can take several milliseconds.
    void countSlap();

    void addLiveViewer() override;
    void removeLiveViewer() override;
    int liveViewers() const { return liveViewers_; }

    Snapshot snapshot() const;
    PreferencesStore& preferences() { return *store_; }
    const Clock& clock() const { return *clock_; }

  private:
    void handleMagnitudeSample(double magnitude);
    // On the main thread: the newest live sample, into liveMagnitude and liveSeries.
    void showLiveSample(double magnitude);

    std::unique_ptr<PreferencesStore> ownedStore_;
    PreferencesStore* store_;
    const Clock* clock_;
    bool lastSaveFailed_ = false;
    int liveViewers_ = 0;
};

}  // namespace bonkwell
