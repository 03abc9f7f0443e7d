#!/usr/bin/python3
"""A small GTK3 window for the Linux desktop tests and benches: a text
entry, a check box, a disabled check box, a list box of ROWS rows
(first argument, default 20) and a button below it, which comes after every
row in the tree as such buttons do in file choosers and settings. Nothing in it animates, so its tree changes
only when a test changes it."""
import sys

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import Gtk  # noqa: E402

rows = int(sys.argv[1]) if len(sys.argv) > 1 else 20
window = Gtk.Window(title="Form")
window.set_default_size(400, 600)
box = Gtk.Box(orientation=Gtk.Orientation.VERTICAL, spacing=4)
entry = Gtk.Entry()
entry.set_text("start")
box.pack_start(entry, False, False, 0)
box.pack_start(Gtk.CheckButton(label="Subscribe"), False, False, 0)
locked = Gtk.CheckButton(label="Locked")
locked.set_sensitive(False)
box.pack_start(locked, False, False, 0)
listbox = Gtk.ListBox()
for n in range(rows):
    listbox.add(Gtk.Label(label=f"Row {n}"))
scroller = Gtk.ScrolledWindow()
scroller.add(listbox)
box.pack_start(scroller, True, True, 0)
box.pack_start(Gtk.Button(label="Done"), False, False, 0)
window.add(box)
window.connect("destroy", Gtk.main_quit)
window.show_all()
Gtk.main()
