#!/usr/bin/python3
"""A GTK3 window whose button "Discard" asks in a modal dialog run to its
answer from within the button's handler, as older GTK 3 applications and
LibreOffice do. The dialog answers "no" by itself after DELAY seconds (first
argument, default 4), so a test can see the window come back without input.
The label shows the last answer; the entry takes typed text."""
import sys

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import GLib, Gtk  # noqa: E402

delay = float(sys.argv[1]) if len(sys.argv) > 1 else 4
window = Gtk.Window(title="Modal")
box = Gtk.Box(orientation=Gtk.Orientation.VERTICAL, spacing=4)
answer = Gtk.Label(label="not asked")
entry = Gtk.Entry()


def ask(_button):
    dialog = Gtk.MessageDialog(transient_for=window, modal=True, message_type=Gtk.MessageType.QUESTION,
                               buttons=Gtk.ButtonsType.YES_NO, text="Discard everything?")
    GLib.timeout_add(int(delay * 1000), lambda: dialog.response(Gtk.ResponseType.NO) and False)
    response = dialog.run()
    dialog.destroy()
    answer.set_text("yes" if response == Gtk.ResponseType.YES else "no")


button = Gtk.Button(label="Discard")
button.connect("clicked", ask)
for widget in (button, answer, entry):
    box.pack_start(widget, False, False, 0)
window.add(box)
window.connect("destroy", Gtk.main_quit)
window.show_all()
Gtk.main()
