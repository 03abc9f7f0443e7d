#!/usr/bin/python3
# logind's session object for tests: owns org.freedesktop.login1 on the bus
# of DBUS_SYSTEM_BUS_ADDRESS and keeps the LockedHint that SetLockedHint gave.
import sys

from gi.repository import Gio, GLib

INTERFACE = """
<node>
  <interface name="org.freedesktop.login1.Session">
    <method name="SetLockedHint"><arg type="b" direction="in"/></method>
    <property name="LockedHint" type="b" access="read"/>
  </interface>
</node>
"""

locked = False


def on_call(connection, sender, path, interface, method, parameters, invocation):
    global locked
    locked = parameters.unpack()[0]
    invocation.return_value(None)


def on_property(connection, sender, path, interface, name):
    return GLib.Variant("b", locked)


def on_bus(connection, name):
    info = Gio.DBusNodeInfo.new_for_xml(INTERFACE)
    connection.register_object("/org/freedesktop/login1/session/auto", info.interfaces[0], on_call, on_property,
                               None)


loop = GLib.MainLoop()
Gio.bus_own_name(Gio.BusType.SYSTEM, "org.freedesktop.login1", Gio.BusNameOwnerFlags.NONE, on_bus, None,
                 lambda *_: loop.quit())
loop.run()
sys.exit(1)
