// SPDX-License-Identifier: GPL-3.0-or-later
// The faces of the detection and sound objects that the state model, the app delegate and
// the views use. The real SlapDetector, ThuzzEngine, AudioPlayer and SoundPackManager
// implement them; tests substitute recording doubles.
#pragma once

#include "SharedTypes.h"

#include <QString>
#include <cstdint>

#include <functional>

namespace bonkwell {

// A source of live samples that sends them more promptly, or at all, only while a view that
// shows every sample as it comes (a live graph) is open. Each add is matched by one remove.
class LiveSampleSource {
  public:
    virtual ~LiveSampleSource() = default;
    virtual void addLiveViewer() = 0;
    virtual void removeLiveViewer() = 0;
};

class SlapDetectorInterface : public LiveSampleSource {
  public:
    virtual void setMinAmplitude(double g) = 0;
    virtual void setCooldown(double seconds) = 0;
    // Called synchronously with every magnitude sample the detector takes.
    virtual void setOnMagnitudeSample(std::function<void(double)> handler) = 0;
    // Called on the main thread with the amplitude (g) of each slap.
    virtual void setOnSlap(std::function<void(double)> handler) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    // Live viewers (LiveSampleSource): while none is open, magnitudes that cannot be a slap
    // may reach the sample handler up to a second late, in batches, which spares the main
    // thread its wake-ups; slaps are never delayed.
};

// One live viewer on a sample source, for as long as this exists.
class LiveViewerHold {
  public:
    explicit LiveViewerHold(LiveSampleSource& source) : source_(source) { source_.addLiveViewer(); }
    ~LiveViewerHold() { source_.removeLiveViewer(); }
    LiveViewerHold(const LiveViewerHold&) = delete;
    LiveViewerHold& operator=(const LiveViewerHold&) = delete;

  private:
    LiveSampleSource& source_;
};

class ThuzzEngineInterface : public LiveSampleSource {
  public:
    // The status reported once the helper has been launched and reads the accelerometer.
    static inline const QString runningStatus = QStringLiteral("Engine running");
    // The status reported when the installed helper is not the one this version ships: it
    // refused to run, and the in-process reader takes over until it is reinstalled.
    static inline const QString outOfDateStatus =
        QStringLiteral("Helper out of date \u2014 open Settings \u2192 General \u2192 Reinstall");

    virtual InstallState installState() const = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void updateTuning(double amplitude, std::int64_t cooldownMs) = 0;
    // Launch tuning for the next start().
    virtual void setMinAmplitude(double amplitude) = 0;
    virtual void setCooldownMs(std::int64_t cooldownMs) = 0;
    // Called on the main thread with each slap the helper reports.
    virtual void setOnEvent(std::function<void(const ThuzzEvent&)> handler) = 0;
    // Called on the main thread with each one-line status ("Engine running", …).
    virtual void setOnStatus(std::function<void(const QString&)> handler) = 0;
    // Called on the engine's own reader thread (not the main thread) with the helper's jolt
    // measure (g) of each sensor reading. The helper sends them only while a live viewer is
    // open (LiveSampleSource), at the sensor's rate.
    virtual void setOnSample(std::function<void(double)> handler) = 0;
    // Copies the helper into place and makes it setuid root through the administrator
    // prompt; blocks until done. True only when the helper ends up installed.
    virtual bool installHelper() = 0;
};

class AudioPlayerInterface {
  public:
    virtual ~AudioPlayerInterface() = default;
    virtual void resetTracker() = 0;
    // Both return at once; the work happens on the player's own thread. Nothing plays for a
    // pack without files.
    virtual void playSlap(const SoundPack& pack, PlayMode mode, double amplitude, double userVolume,
                          bool volumeScaling) = 0;
    virtual void playTest(const SoundPack& pack, double userVolume) = 0;
};

class SoundPackManagerInterface {
  public:
    virtual ~SoundPackManagerInterface() = default;
    // Exactly "Pain", "Sexy", "Halo", "Lizard", in this order.
    virtual QStringList builtInPacks() const = 0;
    // The sub-folders of the user's Custom folder, in listing order.
    virtual QStringList customPacks() const = 0;
    // Seeds the user's sound folders from the bundled packs.
    virtual void bootstrapUserPacks() const = 0;
    // Always a pack, possibly without files, for any name.
    virtual SoundPack pack(const QString& name) const = 0;
    // Opens the user's Custom folder in the desktop's file browser.
    virtual void openCustomFolder() const = 0;
};

}  // namespace bonkwell
