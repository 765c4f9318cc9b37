#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""A tiny stand-in for the XDG desktop portal's Settings interface, for the colour-scheme tests.

It owns org.freedesktop.portal.Desktop on the session bus and answers
"org.freedesktop.appearance" "color-scheme" as the chosen kind of portal does:

  current  ReadOne (a variant holding a uint) and Read (one more variant around it)
  old      only Read, as portals before version 2 of the interface; ReadOne is unknown
  garbage  ReadOne and Read answer a string instead of a number

The test changes the value through com.bonkwell.test.FakePortal.SetColorScheme(u), which
sends SettingChanged like the real portal (in the garbage kind, with a string).
"""
import argparse

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

SETTINGS = "org.freedesktop.portal.Settings"
CONTROL = "com.bonkwell.test.FakePortal"
NAMESPACE = "org.freedesktop.appearance"
KEY = "color-scheme"


class Portal(dbus.service.Object):
    def __init__(self, bus, kind, value):
        super().__init__(bus, "/org/freedesktop/portal/desktop")
        self.kind = kind
        self.value = value

    def _value(self, variant_level):
        if self.kind == "garbage":
            return dbus.String("dark, please", variant_level=variant_level)
        return dbus.UInt32(self.value, variant_level=variant_level)

    def _check(self, namespace, key):
        if namespace != NAMESPACE or key != KEY:
            raise dbus.exceptions.DBusException(
                "Requested setting not found", name="org.freedesktop.portal.Error.NotFound")

    @dbus.service.method(SETTINGS, in_signature="ss", out_signature="v")
    def ReadOne(self, namespace, key):
        if self.kind == "old":
            raise dbus.exceptions.DBusException(
                "No such method 'ReadOne'", name="org.freedesktop.DBus.Error.UnknownMethod")
        self._check(namespace, key)
        return self._value(1)

    @dbus.service.method(SETTINGS, in_signature="ss", out_signature="v")
    def Read(self, namespace, key):
        self._check(namespace, key)
        return self._value(2)

    @dbus.service.signal(SETTINGS, signature="ssv")
    def SettingChanged(self, namespace, key, value):
        pass

    @dbus.service.method(CONTROL, in_signature="u", out_signature="")
    def SetColorScheme(self, value):
        self.value = value
        self.SettingChanged("org.freedesktop.other", KEY, dbus.UInt32(99, variant_level=1))
        self.SettingChanged(NAMESPACE, KEY, self._value(1))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--kind", choices=["current", "old", "garbage"], default="current")
    parser.add_argument("--value", type=int, default=0)
    args = parser.parse_args()
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    portal = Portal(bus, args.kind, args.value)
    name = dbus.service.BusName("org.freedesktop.portal.Desktop", bus)
    GLib.MainLoop().run()
    del portal, name


if __name__ == "__main__":
    main()
