// The line protocol's operations: thin JSON adapters over the typed native
// functions. Each reads its parameters leniently (an optional value that is
// absent or of the wrong type takes its default; a required one fails
// "invalid_argument" "<key> が必要です"), calls the typed function the driver
// calls too, and writes the result as the protocol's record. Parameters are
// read in the order the operation checks them, so that a request wrong in
// two ways hears of the same fault first whichever road it came by.
#pragma once

#include "core/json_value.h"
#include "native/capture_operations.h"
#include "native/mirror_operations.h"
#include "native/operations.h"

namespace glimmerstrand::native {

/// The display record: id, x, y, width, height, scale, main.
core::JSONValue displayRecord(const platform::Display& display);

/// The application the keys `pid`, `bundleId` and `name` select. A key of
/// the wrong type, or a pid that is no whole number, names nothing but still
/// counts as given.
AppQuery appQueryOf(const core::JSONValue& params);

/// The live element of a reference's parameters: `pid` with `uid`, or with
/// `generation` and `i` (-1 when absent); a menu item with `menu` true and
/// `uid`. Fails "invalid_argument" for a missing or mistyped key, after the
/// checks of permission and of the pid's copy that come first.
ResolvedElement resolveReference(MirrorHost& host, const core::JSONValue& params);

/// axTree, axSnapshot, axRefresh, axCounter, waitSettle, elementAt and frontmost.
void addMirrorOperations(OperationTable& table, MirrorHost& host);
/// axMenus.
void addMenuOperations(OperationTable& table, MirrorHost& host);
/// press, focus, setValue, selectAll, readText, inspect, elementFrame and showMenu.
void addElementOperations(OperationTable& table, MirrorHost& host);
/// move, click, drag, scroll, key and type.
void addInputOperations(OperationTable& table, MirrorHost& host);
/// activate, apps, launch, quit, windows, raiseWindow, clipboard,
/// setClipboard and openURL.
void addApplicationOperations(OperationTable& table, MirrorHost& host);
/// permissions, requestPermissions, displays, capture and captureRegion.
void addCaptureOperations(OperationTable& table, PlatformOf platform, Capturer& capturer);

}  // namespace glimmerstrand::native
