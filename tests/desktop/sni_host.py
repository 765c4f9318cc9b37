#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""A minimal StatusNotifier watcher and host for the desktop tests.

It owns org.kde.StatusNotifierWatcher on the session bus, says a host is registered, and
writes one line per registered item ("item <bus name> <object path>") to the log file, so a
test can find the app's tray item and drive it (Activate, ContextMenu, the exported menu)
exactly as a panel would.
"""
import argparse

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

WATCHER = "org.kde.StatusNotifierWatcher"

INTROSPECTION = """<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect"><arg type="s" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get"><arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="v" direction="out"/></method>
    <method name="GetAll"><arg type="s" direction="in"/><arg type="a{sv}" direction="out"/></method>
  </interface>
  <interface name="org.kde.StatusNotifierWatcher">
    <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
    <method name="RegisterStatusNotifierHost"><arg type="s" direction="in"/></method>
    <signal name="StatusNotifierItemRegistered"><arg type="s"/></signal>
    <signal name="StatusNotifierItemUnregistered"><arg type="s"/></signal>
    <signal name="StatusNotifierHostRegistered"/>
    <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
    <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
    <property name="ProtocolVersion" type="i" access="read"/>
  </interface>
</node>
"""


class Watcher(dbus.service.Object):
    def __init__(self, bus, log_path):
        super().__init__(bus, "/StatusNotifierWatcher")
        self.items = []
        self.log_path = log_path

    @dbus.service.method(WATCHER, in_signature="s", out_signature="", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, service, sender=None):
        path = "/StatusNotifierItem"
        if service.startswith("/"):
            service, path = sender, service
        entry = f"{service}{path}"
        if entry not in self.items:
            self.items.append(entry)
        with open(self.log_path, "a") as log:
            log.write(f"item {service} {path}\n")
        self.StatusNotifierItemRegistered(entry)

    @dbus.service.method(WATCHER, in_signature="s", out_signature="")
    def RegisterStatusNotifierHost(self, service):
        pass

    @dbus.service.signal(WATCHER, signature="s")
    def StatusNotifierItemRegistered(self, item):
        pass

    @dbus.service.signal(WATCHER, signature="s")
    def StatusNotifierItemUnregistered(self, item):
        pass

    @dbus.service.signal(WATCHER, signature="")
    def StatusNotifierHostRegistered(self):
        pass

    @dbus.service.method(dbus.INTROSPECTABLE_IFACE, in_signature="", out_signature="s")
    def Introspect(self):
        # With the properties spelled out: Qt reads them through introspection.
        return INTROSPECTION

    def _props(self):
        return {
            "RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s"),
            "IsStatusNotifierHostRegistered": dbus.Boolean(True),
            "ProtocolVersion": dbus.Int32(0),
        }

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, prop):
        return self._props()[prop]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return self._props()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--ready", required=True, help="file created once the name is owned")
    parser.add_argument("--log", required=True)
    args = parser.parse_args()
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    open(args.log, "w").close()
    watcher = Watcher(bus, args.log)
    name = dbus.service.BusName(WATCHER, bus)
    open(args.ready, "w").close()
    GLib.MainLoop().run()
    del watcher, name


if __name__ == "__main__":
    main()
