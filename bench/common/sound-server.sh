# SPDX-License-Identifier: GPL-3.0-or-later
# Sourced by the latency benchmarks: starts a private sound server with a null sink, in a
# runtime folder of its own, and stops it again. Nothing of the user's session is touched.
#
#   sound_server_start KIND RUNTIME SINK [RUNNER...]
#     KIND     pulseaudio | pipewire (PipeWire with WirePlumber and its PulseAudio
#              service, on a private D-Bus session bus, the way desktops run it)
#     RUNTIME  an empty folder that becomes XDG_RUNTIME_DIR (and HOME) of the server
#     SINK     the null sink's name (48 kHz, stereo), made the default sink
#     RUNNER   a command prefix that runs the server's programs (for example setpriv … env -i …);
#              empty: run them here with XDG_RUNTIME_DIR and HOME set to RUNTIME
#   Sets SOUND_SERVER_PIDS (for sound_server_stop) and SOUND_SERVER_LOG (the servers' output).
#   sound_server_stop
#   sound_server_describe   "pulseaudio 16.1" or "PulseAudio (on PipeWire 0.3.65) 15.0.0"
#
# pactl must work through RUNNER afterwards (it finds the server through XDG_RUNTIME_DIR).

SOUND_SERVER_PIDS=()
SOUND_SERVER_LOG=""
SOUND_SERVER_RUNNER=()

sound_server_start() {
    local kind="$1" runtime="$2" sink="$3"
    shift 3
    SOUND_SERVER_RUNNER=("$@")
    if [ ${#SOUND_SERVER_RUNNER[@]} -eq 0 ]; then
        SOUND_SERVER_RUNNER=(env -u PULSE_SERVER -u DBUS_SESSION_BUS_ADDRESS
                             "XDG_RUNTIME_DIR=$runtime" "HOME=$runtime")
    fi
    SOUND_SERVER_LOG="$runtime/sound-server.log"
    local run=("${SOUND_SERVER_RUNNER[@]}")
    case "$kind" in
        pulseaudio)
            "${run[@]}" pulseaudio -n --daemonize=no --exit-idle-time=-1 --disallow-exit \
                --use-pid-file=no --log-level=error --log-target=stderr \
                -L "module-native-protocol-unix" \
                -L "module-null-sink sink_name=$sink rate=48000 channels=2" \
                >>"$SOUND_SERVER_LOG" 2>&1 &
            SOUND_SERVER_PIDS+=($!)
            ;;
        pipewire)
            for tool in pipewire wireplumber pipewire-pulse dbus-daemon; do
                command -v "$tool" >/dev/null ||
                    { echo "sound-server: $tool is missing (run scripts/install-deps)" >&2; return 1; }
            done
            local bus="unix:path=$runtime/bus"
            "${run[@]}" dbus-daemon --session --address="$bus" --nofork --nopidfile \
                >>"$SOUND_SERVER_LOG" 2>&1 &
            SOUND_SERVER_PIDS+=($!)
            for _ in $(seq 50); do [ -S "$runtime/bus" ] && break; sleep 0.05; done
            SOUND_SERVER_RUNNER+=("DBUS_SESSION_BUS_ADDRESS=$bus")
            run=("${SOUND_SERVER_RUNNER[@]}")
            "${run[@]}" pipewire >>"$SOUND_SERVER_LOG" 2>&1 &
            SOUND_SERVER_PIDS+=($!)
            for _ in $(seq 50); do [ -S "$runtime/pipewire-0" ] && break; sleep 0.05; done
            "${run[@]}" wireplumber >>"$SOUND_SERVER_LOG" 2>&1 &
            SOUND_SERVER_PIDS+=($!)
            "${run[@]}" pipewire-pulse >>"$SOUND_SERVER_LOG" 2>&1 &
            SOUND_SERVER_PIDS+=($!)
            ;;
        *)
            echo "sound-server: unknown server '$kind' (pulseaudio or pipewire)" >&2
            return 1
            ;;
    esac
    for _ in $(seq 100); do
        "${run[@]}" pactl info >/dev/null 2>&1 && break
        sleep 0.1
    done
    if ! "${run[@]}" pactl info >/dev/null 2>&1; then
        echo "sound-server: $kind did not start: $(tail -5 "$SOUND_SERVER_LOG")" >&2
        return 1
    fi
    if [ "$kind" = pipewire ]; then
        "${run[@]}" pactl load-module module-null-sink "sink_name=$sink" rate=48000 channels=2 \
            >/dev/null || return 1
    fi
    # The session manager may take a moment to publish a new sink.
    for _ in $(seq 50); do
        "${run[@]}" pactl set-default-sink "$sink" 2>/dev/null &&
            [ "$("${run[@]}" pactl get-default-sink 2>/dev/null)" = "$sink" ] && return 0
        sleep 0.1
    done
    echo "sound-server: the null sink '$sink' did not appear on $kind" >&2
    return 1
}

sound_server_describe() {
    "${SOUND_SERVER_RUNNER[@]}" pactl info |
        sed -n -e 's/^Server Name: //p' -e 's/^Server Version: //p' | paste -sd' '
}

# The process id of the server that mixes (pulseaudio, or pipewire itself).
sound_server_mixer_pid() {
    if [ ${#SOUND_SERVER_PIDS[@]} -eq 1 ]; then
        echo "${SOUND_SERVER_PIDS[0]}"
    else
        echo "${SOUND_SERVER_PIDS[1]}"
    fi
}

sound_server_stop() {
    local i
    for ((i = ${#SOUND_SERVER_PIDS[@]} - 1; i >= 0; i--)); do
        kill -TERM "${SOUND_SERVER_PIDS[i]}" 2>/dev/null || true
        wait "${SOUND_SERVER_PIDS[i]}" 2>/dev/null || true
    done
    SOUND_SERVER_PIDS=()
}
