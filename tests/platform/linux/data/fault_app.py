#!/usr/bin/python3
"""An accessible application that misbehaves the way real toolkits do, for
the fault tests and the soak bench. It speaks AT-SPI2 on the accessibility
bus itself, with no toolkit: it embeds itself with the registry as a
toolkit's bridge does and serves Accessible, Application, Component, Action
and Text for a window of 40 buttons, beside the part its mode breaks.

The mode is the name it runs under (the file name of a link to this file,
or --mode), or the start of it ("fault-storm-2"); the name it shows on the
bus is that name too:

  fault-frozen   SIGUSR1: the whole application blocks until SIGUSR2 or
                 FAULT_FREEZE_S seconds (default 30), its calls unanswered
  fault-list     a list that claims 2^31-1 children; asking for them blocks
                 the whole application as above, every time
  fault-huge     its own name and ten labels' names and texts are 16 MB each
  fault-stuck    a subtree whose calls are never answered
  fault-endless  a subtree where every node has a new child
  fault-storm    SIGUSR1 starts about 10,000 events a second that move
                 elements between two panels, SIGUSR2 stops them; the
                 window never holds more than 58 elements
  fault-rejoin   SIGUSR1: leaves the bus and comes back under a new bus
                 name, in the same process, its window titled "Faults N"
                 the Nth time
  fault-plain    nothing breaks

Every call it is asked is written, one line each ("Interface.Method path",
and the property for a property), to $FAULT_APP_LOG/<name>.calls when
FAULT_APP_LOG is set."""
import os
import signal
import sys
import time

from gi.repository import Gio, GLib

ROOT = "/org/a11y/atspi/accessible/root"
NULL = "/org/a11y/atspi/null"
REGISTRY = "org.a11y.atspi.Registry"

ROLE_APPLICATION, ROLE_FRAME, ROLE_LABEL, ROLE_LIST = 75, 23, 29, 31
ROLE_LIST_ITEM, ROLE_PANEL, ROLE_PUSH_BUTTON = 32, 39, 43
SHOWN = (1 << 8) | (1 << 24) | (1 << 25) | (1 << 30)  # enabled, sensitive, showing, visible
HUGE = 16 * 1024 * 1024

XML = """
<node>
  <interface name="org.a11y.atspi.Accessible">
    <property name="Name" type="s" access="read"/>
    <property name="Description" type="s" access="read"/>
    <property name="Parent" type="(so)" access="read"/>
    <property name="ChildCount" type="i" access="read"/>
    <property name="Locale" type="s" access="read"/>
    <property name="AccessibleId" type="s" access="read"/>
    <property name="HelpText" type="s" access="read"/>
    <method name="GetChildAtIndex"><arg direction="in" type="i"/><arg direction="out" type="(so)"/></method>
    <method name="GetChildren"><arg direction="out" type="a(so)"/></method>
    <method name="GetIndexInParent"><arg direction="out" type="i"/></method>
    <method name="GetRelationSet"><arg direction="out" type="a(ua(so))"/></method>
    <method name="GetRole"><arg direction="out" type="u"/></method>
    <method name="GetRoleName"><arg direction="out" type="s"/></method>
    <method name="GetLocalizedRoleName"><arg direction="out" type="s"/></method>
    <method name="GetState"><arg direction="out" type="au"/></method>
    <method name="GetAttributes"><arg direction="out" type="a{ss}"/></method>
    <method name="GetApplication"><arg direction="out" type="(so)"/></method>
    <method name="GetInterfaces"><arg direction="out" type="as"/></method>
  </interface>
  <interface name="org.a11y.atspi.Application">
    <property name="ToolkitName" type="s" access="read"/>
    <property name="Version" type="s" access="read"/>
    <property name="AtspiVersion" type="s" access="read"/>
    <property name="Id" type="i" access="readwrite"/>
    <method name="GetLocale"><arg direction="in" type="u"/><arg direction="out" type="s"/></method>
  </interface>
  <interface name="org.a11y.atspi.Component">
    <method name="GetExtents"><arg direction="in" type="u"/><arg direction="out" type="(iiii)"/></method>
    <method name="GetAccessibleAtPoint">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="in" type="u"/>
      <arg direction="out" type="(so)"/>
    </method>
    <method name="GrabFocus"><arg direction="out" type="b"/></method>
  </interface>
  <interface name="org.a11y.atspi.Action">
    <property name="NActions" type="i" access="read"/>
    <method name="GetActions"><arg direction="out" type="a(sss)"/></method>
    <method name="DoAction"><arg direction="in" type="i"/><arg direction="out" type="b"/></method>
  </interface>
  <interface name="org.a11y.atspi.Text">
    <property name="CharacterCount" type="i" access="read"/>
    <property name="CaretOffset" type="i" access="read"/>
    <method name="GetText">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="out" type="s"/>
    </method>
  </interface>
</node>
"""
INFO = Gio.DBusNodeInfo.new_for_xml(XML)
IFACES = {i.name: i for i in INFO.interfaces}


class Node:
    def __init__(self, path, role, name, parent, extents=(0, 0, 0, 0), states=SHOWN, text=None):
        self.path, self.role, self.name, self.parent = path, role, name, parent
        self.extents, self.states, self.text = extents, states, text
        self.children = []
        self.stuck = False  # never answers
        self.blocks = False  # asking for its children blocks the application
        self.claimed = None  # the child count it claims, when not its own

    def interfaces(self):
        names = ["org.a11y.atspi.Accessible"]
        if self.role == ROLE_APPLICATION:
            names.append("org.a11y.atspi.Application")
        else:
            names.append("org.a11y.atspi.Component")
        if self.role == ROLE_PUSH_BUTTON:
            names.append("org.a11y.atspi.Action")
        if self.text is not None:
            names.append("org.a11y.atspi.Text")
        return names


class FaultApp:
    def __init__(self, mode, name):
        self.mode, self.name = mode, name
        self.nodes = {}
        self.connection = None
        self.registrations = []
        self.pending = []  # calls kept unanswered, so that they stay unanswered
        self.frozen = False
        self.storm = None
        self.moves = 0
        self.rejoins = 0
        folder = os.environ.get("FAULT_APP_LOG")
        self.log = open(os.path.join(folder, name + ".calls"), "a", buffering=1) if folder else None
        self.build()

    # --- The tree ---------------------------------------------------------

    def add(self, node):
        self.nodes[node.path] = node
        if node.parent:
            self.nodes[node.parent].children.append(node.path)
        return node

    def build(self):
        # A huge application's own name is huge too: found by its pid only.
        name = self.name + " " + "z" * HUGE if self.mode == "fault-huge" else self.name
        self.add(Node(ROOT, ROLE_APPLICATION, name, None))
        # Not active: none of these takes the front from the application beside it.
        self.add(Node("/w", ROLE_FRAME, "Faults", ROOT, (0, 0, 400, 800)))
        self.add(Node("/p", ROLE_PANEL, "", "/w", (0, 0, 400, 740)))
        for n in range(40):
            self.add(Node(f"/b{n}", ROLE_PUSH_BUTTON, f"Button {n}", "/p", (10, 10 + 18 * n, 100, 16)))
        if self.mode == "fault-huge":
            for n in range(10):
                text = chr(ord("a") + n) * HUGE
                self.add(Node(f"/h{n}", ROLE_LABEL, text, "/w", (200, 10 + 18 * n, 100, 16), text=text))
        elif self.mode == "fault-stuck":
            stuck = self.add(Node("/s", ROLE_PANEL, "Stuck", "/w", (200, 0, 200, 400)))
            stuck.stuck = True
            for n in range(10):
                self.add(Node(f"/s{n}", ROLE_PUSH_BUTTON, f"Stuck {n}", "/s", (210, 10 + 18 * n, 100, 16))).stuck = True
        elif self.mode == "fault-endless":
            self.add(Node("/e0", ROLE_PANEL, "Level 0", "/w", (200, 0, 200, 400)))
        elif self.mode == "fault-list":
            rows = self.add(Node("/l", ROLE_LIST, "Rows", "/w", (200, 0, 200, 400)))
            rows.blocks = True
            rows.claimed = 2**31 - 1
        elif self.mode == "fault-storm":
            self.add(Node("/a", ROLE_PANEL, "Left", "/w", (200, 0, 100, 400)))
            self.add(Node("/c", ROLE_PANEL, "Right", "/w", (300, 0, 100, 400)))
            for n in range(14):
                self.add(Node(f"/i{n}", ROLE_LIST_ITEM, f"Item {n}", "/a", (200, 10 + 18 * n, 100, 16)))

    def node(self, path):
        if path in self.nodes:
            return self.nodes[path]
        if path.startswith("/e") and path[2:].isdigit():  # the endless tree, made as it is asked for
            level = int(path[2:])
            parent = f"/e{level - 1}"
            node = Node(path, ROLE_PANEL, f"Level {level}", parent, (200, 0, 200, 400))
            self.nodes[path] = node
            self.register(node)
            return node
        return None

    def children_of(self, node):
        if node.path.startswith("/e"):
            child = f"/e{int(node.path[2:]) + 1}"
            self.node(child)
            return [child]
        if node.blocks:
            self.block()
            return [f"/l/{n}" for n in range(1000)]
        return list(node.children)

    # --- The bus ----------------------------------------------------------

    def ref(self, path):
        return (self.connection.get_unique_name(), path)

    def connect(self):
        address = os.environ.get("AT_SPI_BUS_ADDRESS")
        if not address:
            session = Gio.bus_get_sync(Gio.BusType.SESSION, None)
            reply = session.call_sync("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", None,
                                      GLib.VariantType("(s)"), Gio.DBusCallFlags.NONE, -1, None)
            address = reply.unpack()[0]
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
        self.registrations = []
        for node in list(self.nodes.values()):
            self.register(node)
        # As a toolkit's bridge does: the registry lists the application.
        self.connection.call_sync(REGISTRY, ROOT, "org.a11y.atspi.Socket", "Embed",
                                  GLib.Variant("((so))", (self.ref(ROOT),)), GLib.VariantType("((so))"),
                                  Gio.DBusCallFlags.NONE, 5000, None)

    def register(self, node):
        for iface in node.interfaces():
            self.registrations.append(
                self.connection.register_object(node.path, IFACES[iface], self.on_call, None, None))

    def leave_and_return(self):
        self.connection.close_sync(None)
        self.rejoins += 1
        self.nodes["/w"].name = f"Faults {self.rejoins}"
        self.connect()
        return False

    # --- Calls ------------------------------------------------------------

    def block(self):
        """Blocks the whole application, as a toolkit busy in a call does."""
        self.frozen = True
        limit = time.monotonic() + float(os.environ.get("FAULT_FREEZE_S", "30"))
        while self.frozen and time.monotonic() < limit:
            time.sleep(0.02)
        self.frozen = False

    def on_call(self, connection, sender, path, interface, method, parameters, invocation):
        if self.log:
            told = f" {parameters.unpack()[1]}" if interface == "org.freedesktop.DBus.Properties" else ""
            self.log.write(f"{interface}.{method} {path}{told}\n")
        node = self.node(path)
        if node is None:
            invocation.return_dbus_error("org.freedesktop.DBus.Error.UnknownObject", path)
            return
        if node.stuck:
            self.pending.append(invocation)
            return
        if interface == "org.freedesktop.DBus.Properties":
            if method == "Set":
                invocation.return_value(None)  # the registry numbers the application: nothing to keep
            else:
                self.property(node, invocation, *parameters.unpack())
            return
        reply = self.method(node, method, parameters.unpack())
        invocation.return_value(reply)

    def method(self, node, method, args):
        if method == "GetRole":
            return GLib.Variant("(u)", (node.role,))
        if method == "GetState":
            return GLib.Variant("(au)", ([node.states & 0xFFFFFFFF, node.states >> 32],))
        if method == "GetInterfaces":
            return GLib.Variant("(as)", (node.interfaces(),))
        if method == "GetChildren":
            return GLib.Variant("(a(so))", ([self.ref(p) for p in self.children_of(node)],))
        if method == "GetChildAtIndex":
            children = self.children_of(node)
            index = args[0]
            return GLib.Variant("((so))", (self.ref(children[index] if 0 <= index < len(children) else NULL),))
        if method == "GetIndexInParent":
            parent = self.nodes.get(node.parent)
            return GLib.Variant("(i)", (parent.children.index(node.path) if parent else -1,))
        if method == "GetAttributes":
            return GLib.Variant("(a{ss})", ({},))
        if method == "GetRelationSet":
            return GLib.Variant("(a(ua(so)))", ([],))
        if method in ("GetRoleName", "GetLocalizedRoleName"):
            return GLib.Variant("(s)", (str(node.role),))
        if method == "GetApplication":
            return GLib.Variant("((so))", (self.ref(ROOT),))
        if method == "GetLocale":
            return GLib.Variant("(s)", ("C",))
        if method == "GetExtents":
            return GLib.Variant("((iiii))", (node.extents,))
        if method == "GetAccessibleAtPoint":
            return GLib.Variant("((so))", (self.ref(NULL),))
        if method in ("GrabFocus", "DoAction"):
            return GLib.Variant("(b)", (True,))
        if method == "GetActions":
            return GLib.Variant("(a(sss))", ([("click", "", "")],))
        if method == "GetText":
            start, end = args
            end = len(node.text) if end < 0 else end
            return GLib.Variant("(s)", (node.text[max(start, 0):end],))
        return None

    def property(self, node, invocation, interface, name, *rest):
        values = {
            "Name": ("s", node.name),
            "Description": ("s", ""),
            "AccessibleId": ("s", ""),
            "HelpText": ("s", ""),
            "Locale": ("s", "C"),
            "Parent": ("(so)", self.ref(node.parent or NULL) if node.parent else (REGISTRY, ROOT)),
            "ChildCount": ("i", node.claimed if node.claimed is not None else len(self.children_of(node))),
            "ToolkitName": ("s", "fault"),
            "Version": ("s", "1"),
            "AtspiVersion": ("s", "2.1"),
            "Id": ("i", 0),
            "NActions": ("i", 1),
            "CharacterCount": ("i", len(node.text or "")),
            "CaretOffset": ("i", 0),
        }
        if name not in values:
            invocation.return_dbus_error("org.freedesktop.DBus.Error.UnknownProperty", name)
            return
        signature, value = values[name]
        invocation.return_value(GLib.Variant("(v)", (GLib.Variant(signature, value),)))

    # --- Faults -----------------------------------------------------------

    def storm_step(self):
        # A hundred moves every 10 ms: each a removal from one panel and an
        # addition to the other, two events.
        for _ in range(50):
            source, target = ("/a", "/c") if self.nodes["/a"].children else ("/c", "/a")
            if self.moves % 2 and self.nodes[target].children:
                source, target = target, source
            item = self.nodes[source].children.pop(0)
            self.nodes[target].children.append(item)
            self.nodes[item].parent = target
            self.emit(source, "remove", 0, item)
            self.emit(target, "add", len(self.nodes[target].children) - 1, item)
            self.moves += 1
        return True

    def emit(self, path, detail, index, child):
        self.connection.emit_signal(None, path, "org.a11y.atspi.Event.Object", "ChildrenChanged",
                                    GLib.Variant("(siiva{sv})", (detail, index, 0, GLib.Variant("(so)", self.ref(child)), {})))

    def start_fault(self):
        if self.mode == "fault-frozen":
            self.block()
        elif self.mode == "fault-storm" and self.storm is None:
            self.storm = GLib.timeout_add(10, self.storm_step)
        elif self.mode == "fault-rejoin":
            GLib.idle_add(self.leave_and_return)

    def stop_fault(self):
        self.frozen = False
        if self.storm is not None:
            GLib.source_remove(self.storm)
            self.storm = None


def main():
    name = os.path.basename(sys.argv[0])
    if name.endswith(".py"):
        name = name[:-3]
    if len(sys.argv) > 2 and sys.argv[1] == "--mode":
        name = sys.argv[2]
    modes = ("fault-frozen", "fault-list", "fault-huge", "fault-stuck", "fault-endless", "fault-storm",
             "fault-rejoin")
    mode = next((m for m in modes if name == m or name.startswith(m + "-")), "fault-plain")
    app = FaultApp(mode, name)
    app.connect()
    # Python's own handlers: they also run while a call blocks the application.
    signal.signal(signal.SIGUSR1, lambda *_: GLib.idle_add(lambda: app.start_fault() and False))
    signal.signal(signal.SIGUSR2, lambda *_: app.stop_fault())
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    loop = GLib.MainLoop()
    # Wakes Python now and then, so that its signal handlers run while GLib waits.
    GLib.timeout_add(50, lambda: True)
    loop.run()


if __name__ == "__main__":
    main()
