#!/usr/bin/python3
# A screensaver service for tests: owns org.freedesktop.ScreenSaver on the
# session bus and answers GetActive with what the last SetActive said.
import sys

from gi.repository import Gio, GLib

INTERFACE = """
<node>
  <interface name="org.freedesktop.ScreenSaver">
    <method name="GetActive"><arg type="b" direction="out"/></method>
    <method name="SetActive"><arg type="b" direction="in"/><arg type="b" direction="out"/></method>
  </interface>
</node>
"""

active = False


def on_call(connection, sender, path, interface, method, parameters, invocation):
    global active
    if method == "SetActive":
        active = parameters.unpack()[0]
    invocation.return_value(GLib.Variant("(b)", (active,)))


def on_bus(connection, name):
    info = Gio.DBusNodeInfo.new_for_xml(INTERFACE)
    connection.register_object("/org/freedesktop/ScreenSaver", info.interfaces[0], on_call, None, None)


loop = GLib.MainLoop()
Gio.bus_own_name(Gio.BusType.SESSION, "org.freedesktop.ScreenSaver", Gio.BusNameOwnerFlags.NONE, on_bus, None,
                 lambda *_: loop.quit())
loop.run()
sys.exit(1)
