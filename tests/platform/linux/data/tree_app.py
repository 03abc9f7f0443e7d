#!/usr/bin/python3
"""A GTK3 window with one tree view of ROWS rows (first argument, default
20) and three columns, for the walks of long tables. Nothing in it
animates."""
import sys

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import Gtk  # noqa: E402

rows = int(sys.argv[1]) if len(sys.argv) > 1 else 20
store = Gtk.ListStore(str, str, str)
for n in range(rows):
    store.append([f"Row {n}", str(n * 7 % 1000), f"Item {n % 13}"])
view = Gtk.TreeView(model=store)
for column, title in enumerate(["Name", "Size", "Kind"]):
    view.append_column(Gtk.TreeViewColumn(title, Gtk.CellRendererText(), text=column))
scroller = Gtk.ScrolledWindow()
scroller.add(view)
window = Gtk.Window(title="Rows")
window.set_default_size(400, 600)
window.add(scroller)
window.connect("destroy", Gtk.main_quit)
window.show_all()
Gtk.main()
