#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Runs a command in a headless XFCE session on X11: Xvfb, xfsettingsd, xfwm4 and xfce4-panel
# with a top panel holding a task list and the notification area (systray plugin), which hosts
# both StatusNotifier items (D-Bus) and XEmbed icons.
#
#   xfce.sh [--theme light|dark] [--tray sni|xembed] -- COMMAND [ARGS…]
#
# --tray xembed: the app gets a session bus of its own (BONKWELL_APP_BUS), where no
# StatusNotifier host is, so it docks its icon over XEmbed as it would on an older panel.
# In COMMAND's environment: DISPLAY, DBUS_SESSION_BUS_ADDRESS, HOME, XDG_*,
# BONKWELL_SESSION_DIR, BONKWELL_SHELL_LOGS (the folder of the shell's *.log files),
# BONKWELL_SHELL=xfce, BONKWELL_THEME, BONKWELL_TRAY. Fails with the shell's log lines when a
# piece does not come up.
set -euo pipefail

theme=light
tray=sni
while [ $# -gt 0 ]; do
    case "$1" in
        --theme) theme="$2"; shift 2 ;;
        --tray) tray="$2"; shift 2 ;;
        --) shift; break ;;
        *) echo "xfce.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
[ $# -gt 0 ] || { echo "xfce.sh: no command" >&2; exit 2; }
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=common.sh
. "$here/common.sh"

if [ -z "${BONKWELL_IN_SHELL_BUS:-}" ]; then
    need_tools xfce.sh dbus-run-session dbus-daemon Xvfb xprop xfwm4 xfce4-panel xfsettingsd xfconf-query
    make_scratch xfce
    export BONKWELL_IN_SHELL_BUS=1
    run_session_bus "$0" --theme "$theme" --tray "$tray" -- "$@"
fi
scratch="$BONKWELL_SESSION_DIR"
trap stop_all EXIT

case "$theme" in
    light) gtk_theme=Adwaita ;;
    dark) gtk_theme=Adwaita-dark ;;
    *) echo "xfce.sh: unknown theme $theme" >&2; exit 2 ;;
esac

channels="$XDG_CONFIG_HOME/xfce4/xfconf/xfce-perchannel-xml"
mkdir -p "$channels"
channel() {  # channel NAME: writes the settings channel NAME, its properties read from stdin
    { echo '<?xml version="1.0" encoding="UTF-8"?>'
      echo "<channel name=\"$1\" version=\"1.0\">"
      cat
      echo '</channel>'; } > "$channels/$1.xml"
}
# A preset panel skips the first-run question: one panel along the top.
channel xfce4-panel <<XML
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="28"/>
      <property name="icon-size" type="uint" value="0"/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
        <value type="int" value="2"/>
        <value type="int" value="3"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="tasklist"/>
    <property name="plugin-2" type="string" value="separator">
      <property name="expand" type="bool" value="true"/>
      <property name="style" type="uint" value="0"/>
    </property>
    <property name="plugin-3" type="string" value="systray">
      <property name="square-icons" type="bool" value="true"/>
    </property>
  </property>
XML
channel xsettings <<XML
  <property name="Net" type="empty">
    <property name="ThemeName" type="string" value="$gtk_theme"/>
    <property name="IconThemeName" type="string" value="Adwaita"/>
  </property>
XML
channel xfwm4 <<XML
  <property name="general" type="empty">
    <property name="use_compositing" type="bool" value="false"/>
    <property name="workspace_count" type="int" value="1"/>
  </property>
XML

start_xvfb
unset QT_QPA_PLATFORM  # the shell draws on the X server (ctest sets offscreen for unit tests)
export XDG_CURRENT_DESKTOP=XFCE XDG_SESSION_DESKTOP=xfce XDG_SESSION_TYPE=x11 DESKTOP_SESSION=xfce
# D-Bus-started services (xfconfd, the panel's plugins) need the display and the folders.
dbus-update-activation-environment DISPLAY HOME XDG_CONFIG_HOME XDG_DATA_HOME XDG_CACHE_HOME \
    XDG_RUNTIME_DIR XDG_CURRENT_DESKTOP >"$scratch/dbus-env.log" 2>&1

xfsettingsd --no-daemon --disable-wm-check >"$scratch/xfsettingsd.log" 2>&1 &
pids+=($!)
wait_for 30 "xfsettingsd" selection_owned _XSETTINGS_S0
xfwm4 --compositor=off --sm-client-disable >"$scratch/xfwm4.log" 2>&1 &
pids+=($!)
wait_for 30 "xfwm4" wm_running
xfce4-panel --disable-wm-check --sm-client-disable >"$scratch/xfce4-panel.log" 2>&1 &
pids+=($!)
wait_for 30 "the panel's notification area (XEmbed)" selection_owned _NET_SYSTEM_TRAY_S0
wait_for 30 "the panel's notification area (StatusNotifier host)" sni_host_registered

if [ "$tray" = xembed ]; then
    dbus-daemon --session --nofork --print-address=4 4>"$scratch/app-bus" >"$scratch/app-bus.log" 2>&1 &
    pids+=($!)
    wait_for 10 "the app's own session bus" test -s "$scratch/app-bus"
    export BONKWELL_APP_BUS="$(head -n1 "$scratch/app-bus")"
elif [ "$tray" != sni ]; then
    echo "xfce.sh: unknown tray $tray" >&2; exit 2
fi
export BONKWELL_SHELL=xfce BONKWELL_THEME="$theme" BONKWELL_TRAY="$tray"
"$@"
