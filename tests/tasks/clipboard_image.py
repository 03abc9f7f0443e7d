#!/usr/bin/python3
"""Prints the size of the image on the clipboard as another GTK application
sees it, or "none"."""
import gi

gi.require_version("Gtk", "3.0")
gi.require_version("Gdk", "3.0")
from gi.repository import Gdk, Gtk  # noqa: E402

image = Gtk.Clipboard.get(Gdk.SELECTION_CLIPBOARD).wait_for_image()
print(f"{image.get_width()}x{image.get_height()}" if image else "none")
