// SPDX-License-Identifier: GPL-3.0-or-later
// Who serves the session's PulseAudio socket: a real PulseAudio, PipeWire's PulseAudio
// service, or nobody. They speak the same protocol but want different clients.
#pragma once

namespace bonkwell::sound {

enum class SoundServer {
    none,        // nothing listens on $XDG_RUNTIME_DIR/pulse/native
    pulseAudio,  // a PulseAudio daemon (or a listener that does not say it is PipeWire)
    pipeWire,    // PipeWire's PulseAudio service
    named,       // $PULSE_SERVER names a server: whatever it is, PulseAudio's client finds it
};

// Connects to the socket (without blocking) and looks at the process on the other end.
SoundServer sessionSoundServer();

}  // namespace bonkwell::sound
