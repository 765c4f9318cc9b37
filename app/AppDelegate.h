// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AppState.h"
#include "Interfaces.h"

#include <QObject>

#include <functional>
#include <memory>

namespace bonkwell {

// Owns the five long-lived objects, runs start-up in its fixed order, turns every reported
// slap into a count and a sound, and stops detection at exit.
class AppDelegate : public QObject {
  public:
    struct Parts {
        std::unique_ptr<AppState> state;
        std::unique_ptr<SlapDetectorInterface> detector;
        std::unique_ptr<AudioPlayerInterface> audio;
        std::unique_ptr<SoundPackManagerInterface> packManager;
        std::unique_ptr<ThuzzEngineInterface> engine;
    };
    // Makes the tray item (or its stand-in) from the delegate's objects.
    using MenuBarFactory = std::function<std::unique_ptr<QObject>(AppDelegate&)>;

    static inline const QString kHelperNotInstalled =
        QStringLiteral("Helper not installed \u2014 Settings \u2192 General");

    AppDelegate(Parts parts, MenuBarFactory makeMenuBar);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();
    void handleSlap(double amplitude);
    void applicationWillTerminate();

    AppState& state() { return *state_; }
    SlapDetectorInterface& detector() { return *detector_; }
    AudioPlayerInterface& audio() { return *audio_; }
    SoundPackManagerInterface& packManager() { return *packManager_; }
    ThuzzEngineInterface& engine() { return *engine_; }
    QObject* menuBar() const { return menuBar_.get(); }

  private:
    // In the order of construction; the destructor releases the tray first.
    std::unique_ptr<QObject> menuBar_;
    std::unique_ptr<AppState> state_;
    std::unique_ptr<SlapDetectorInterface> detector_;
    std::unique_ptr<AudioPlayerInterface> audio_;
    std::unique_ptr<SoundPackManagerInterface> packManager_;
    std::unique_ptr<ThuzzEngineInterface> engine_;
    MenuBarFactory makeMenuBar_;
};

}  // namespace bonkwell
