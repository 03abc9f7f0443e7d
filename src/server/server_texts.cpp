#include "server/server_texts.h"

#include <string_view>
#include <vector>

#include "core/ax_graph.h"
#include "core/desktop.h"
#include "core/procedures.h"
#include "core/runner.h"

namespace glimmerstrand::server {
namespace {

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += separator;
    out += parts[i];
  }
  return out;
}

std::string propertiesLine() {
  const auto& properties = core::graphPropertyNames();
  std::vector<std::string> names(properties.begin(), properties.end());
  return "Properties: " + joined(names, ", ") +
         ". name is title, else description, else placeholder. subrole drops the AX prefix, e.g. CloseButton, "
         "SearchField. text joins title, description, value, placeholder and help, for CONTAINS searches.";
}

std::string proceduresLine(core::Desktop desktop) {
  std::vector<std::string> usages;
  for (const auto& procedure : core::procedureTable(desktop)) usages.push_back(procedure.usage);
  return "Procedures: " + joined(usages, "; ") + ".";
}

// The lines that differ between desktops are written as pairs in place; the
// Linux lines name what an agent meets there: the desktop's applications,
// AT-SPI, X11 tools, and its prompts.
std::vector<std::string> instructionLines(core::Desktop desktop) {
  auto either = [desktop](core::DesktopText text) { return text.in(desktop); };
  return {
      either({
          .mac = "Use this server for any request to look at or operate a macOS app on this Mac: Spotify, Music, "
                 "Finder, Safari, Calculator, Notes, Mail, System Settings, Slack, Discord and any other app. Prefer "
                 "it over screenshots or AppleScript. It reads the app's accessibility tree from a live cached copy "
                 "in a few ms and presses buttons without moving the cursor.",
          .linuxDesktop =
              "Use this server for any request to look at or operate an app on this Linux desktop: Firefox, "
              "Chromium, LibreOffice, Files, Text Editor, Calculator, Terminal and any other app. Prefer it over "
              "screenshots or xdotool. It reads the app's accessibility tree (AT-SPI) from a live cached copy in a "
              "few ms and presses buttons without moving the cursor.",
      }),
      either({
          .mac = "Mac のアプリを見る、押す、入力する、再生する、開く、閉じるといった依頼は、このサーバーの do で行う。",
          .linuxDesktop = "Linux デスクトップのアプリを見る、押す、入力する、再生する、開く、閉じるといった依頼は、"
                          "このサーバーの do で行う。",
      }),
      either({
          .mac = "Precedence: for native macOS apps, prefer this server over screenshot-based computer use tools "
                 "(mcp__computer-use__* or computer_*) and over the computer-use skill. It is faster, reads exact "
                 "text, and does not need per-app access requests. If computer use tools are missing or not enabled, "
                 "do not conclude that apps cannot be operated; use this server. Use computer use only when this "
                 "server cannot do the step, for example when the user explicitly asks for it.",
          .linuxDesktop =
              "Precedence: for desktop apps (GTK, Qt, LibreOffice, Firefox, Chromium), prefer this server over "
              "screenshot-based computer use tools (mcp__computer-use__* or computer_*) and over the computer-use "
              "skill. It is faster, reads exact text, and does not need per-app access requests. If computer use "
              "tools are missing or not enabled, do not conclude that apps cannot be operated; use this server. Use "
              "computer use only when this server cannot do the step, for example when the user explicitly asks for "
              "it.",
      }),
      "",
      "Work quietly: call do back to back without writing text between calls, and do not announce or recap steps. When "
      "done, answer the user once, briefly, in the user's language: the outcome and only what they must know.",
      "",
      "do takes Cypher statements separated by ;. They run in order in one call, so act and check in a single call.",
      "To get oriented in an unfamiliar window, start with CALL ui.open(\"App\"); CALL ui.tree() for an indented "
      "outline with ids, then act on those ids or narrow down with MATCH. ui.tree(\"e12\") expands one part. "
      "ui.inspect(\"e12\") shows the actions and settable attributes of one element.",
      "Speed comes from fewer calls. Write every step you can already decide in one call, and end it with a read that "
      "checks the result. Find and act in one statement, MATCH (b:Button) WHERE b.name CONTAINS \"次へ\" SET b.pressed "
      "= true, instead of returning an id and pressing it in the next call. Trust the change report after a write "
      "instead of reading again to confirm it. Writes already wait for the UI to settle, so do not add ui.wait after "
      "them; use ui.wait only to let real time pass, such as letting a song play. When a write changes the view a lot, "
      "the result already carries the new outline, so do not call ui.tree again. " +
          either({
              .mac = "Toggle buttons are named by what pressing them does: \"Disable shuffle\" or "
                     "「シャッフルを無効にする」 means shuffle is on now.",
              .linuxDesktop = "Toggle buttons and check boxes are CheckBox, with value 1 when on and 0 when off.",
          }) +
          " Text elements (StaticText) are named by their text, so MATCH (t:StaticText {name:\"一般\"}) works. Use "
          "WHERE n:Button OR n:Row to mix labels. Quit apps with CALL ui.quit(\"App\"), not with window close buttons.",
      "Graph: each node is an accessibility element. Labels are roles without AX: Button, StaticText, TextField, "
      "TextArea, ComboBox, Row, Cell, Link, Group, CheckBox, MenuItem, WebArea, Window" +
          either({
              .mac = ".",
              .linuxDesktop = ", Sheet (a dialog, inside the window it belongs to: MATCH (s:Sheet) finds an open "
                              "save or confirm dialog).",
          }) +
          " Element matches every node, Control matches pressable or editable nodes. (parent)-[:CHILD]->(child), "
          "(child)-[:PARENT]->(parent), variable length -[:CHILD*1..8]->, backwards (child)<-[:CHILD*1..4]-(ancestor).",
      propertiesLine(),
      "Read: MATCH ... WHERE ... RETURN with AS, comma separated patterns and repeated MATCH clauses sharing "
      "variables, DISTINCT, ORDER BY, SKIP, LIMIT, count(). Operators = <> < > CONTAINS, STARTS WITH, ENDS WITH, =~ "
      "\"(?i)regex\", IN [...], AND OR NOT. Without LIMIT at most " +
          std::to_string(core::rowCap) +
          " rows. Results are a tab separated table; a node reads like e12 Button \"Play\".",
      "Write: MATCH ... SET b.pressed = true | SET f.focused = true | SET f.value = \"text\". At most " +
          std::to_string(core::maxWriteTargets) +
          " nodes per SET. Add RETURN after SET to read the written nodes afterwards.",
      proceduresLine(desktop),
      "App menu bar: AppMenuBarItem, AppMenu and AppMenuItem (ids m12) are read only when used; AppMenuItem has "
      "shortcut and checked.",
      "Writes report changes: + added (with id), - removed, ~ changed (was ...). Consecutive writes run back to back "
      "and the tool waits for the UI to settle once.",
      either({
          .mac =
              "Tips: pass app on every call, even right after ui.open; it also targets a background app. apps that "
              "show almost nothing in the background, such as Spotify launched behind other windows, are brought "
              "to the front automatically. Selecting a row or cell does not open or play it; press a button inside "
              "it named like Play or …を再生. In web apps ids can change after re-render, so prefer a MATCH on names "
              "for writes. If a text field ignores SET value, focus it, then ui.type. A ui.type note that the text "
              "could not be seen means it was most likely typed; check with ui.screenshot, or ask the user to look, "
              "before typing again. Confirm with ui.wait_for or a read in the same call.",
          .linuxDesktop =
              "Tips: pass app on every call, even right after ui.open; it also targets a background app, which stays "
              "behind other windows while it is read and pressed. Selecting a row or cell does not open or play it; "
              "press a button inside it named like Play or …を再生. In web apps ids can change after re-render, so "
              "prefer a MATCH on names for writes. If a text field ignores SET value, focus it, then ui.type. A "
              "ui.type note that the text could not be seen means it was most likely typed; check with ui.screenshot, "
              "or ask the user to look, before typing again. Confirm with ui.wait_for or a read in the same call.",
      }),
      either({
          .mac = "Text boxes: message and comment boxes, such as the composer in Discord or Slack, are usually "
                 "TextArea, not TextField; find any input with MATCH (f:Control) WHERE f.text CONTAINS \"メッセージ\" "
                 "or a word from its placeholder. In apps built on web technology (Discord, Slack, Spotify), SET value "
                 "changes only what is shown, not what the app sends; press or focus the box, then ui.type, and send "
                 "with ui.key(\"return\").",
          .linuxDesktop =
              "Text boxes: message and comment boxes, such as the composer of a chat page in Firefox or Chromium, are "
              "usually TextArea, not TextField; find any input with MATCH (f:Control) WHERE f.text CONTAINS "
              "\"メッセージ\" or a word from its placeholder. In browsers and apps built on web technology (Firefox, "
              "Chromium, Slack, Discord), SET value changes only what is shown, not what the page sends; press or "
              "focus the box, then ui.type, and send with ui.key(\"return\").",
      }),
      either({
          .mac = "Pictures to other apps: CALL ui.copy_screenshot() puts a PNG of the app's window on the clipboard, "
                 "or ui.copy_screenshot(\"e12\") of one element; then focus the target box in the other app and send "
                 "ui.key(\"cmd+v\"). It captures only that app's windows, so other windows and notifications do not "
                 "leak into the picture. To open a folder in Finder, use CALL ui.open_url(\"/Applications\") instead "
                 "of clicking the sidebar; a sidebar row that is only selected does not open. ui.open_url also opens "
                 "app links such as Discord (discord://discord.com/channels/SERVER/CHANNEL), Slack "
                 "(slack://channel?team=TEAM&id=CHANNEL) and Spotify (spotify:search:WORDS) to jump straight to a "
                 "place.",
          .linuxDesktop =
              "Pictures to other apps: CALL ui.copy_screenshot() puts a PNG of the app's window on the clipboard, or "
              "ui.copy_screenshot(\"e12\") of one element; then focus the target box in the other app and send "
              "ui.key(\"ctrl+v\"). It captures only that app's windows, so other windows and notifications do not "
              "leak into the picture. To open a folder in Files, use CALL ui.open_url(\"/usr/share\") instead of "
              "clicking the sidebar; a sidebar row that is only selected does not open. ui.open_url also opens web "
              "addresses in the default browser, files in their default app (a .odt in LibreOffice), and links that "
              "an installed app handles, such as mailto:NAME@example.com or Slack "
              "(slack://channel?team=TEAM&id=CHANNEL), to jump straight to a place.",
      }),
      either({
          .mac = "Stay inside this server for steps in apps. Do not fall back to shell commands, osascript, System "
                 "Events keystrokes or screencapture: they act blindly, can type into the wrong field or send a "
                 "message, and screen captures show other windows. If a step cannot be done here, stop and tell the "
                 "user what is missing.",
          .linuxDesktop =
              "Stay inside this server for steps in apps. Do not fall back to shell commands, xdotool or ydotool "
              "keystrokes, or screenshot tools such as import, scrot or gnome-screenshot: they act blindly, can type "
              "into the wrong field or send a message, and screen captures show other windows. If a step cannot be "
              "done here, stop and tell the user what is missing.",
      }),
      either({
          .mac = "Values in the tree are cut at 120 characters; use ui.read for the full text. Lists with more than "
                 "500 items include only the items near the visible area, and the outline says how many are off "
                 "screen; use ui.scroll to reach the rest. The distance of a page differs by app, so read positions "
                 "again after scrolling. Rows that cannot be pressed, such as sidebar items in System Settings, are "
                 "selected by SET r.pressed = true. Use ui.screenshot when the tree does not show what you need, such "
                 "as images, canvases or layout; the image comes back with the result. If the last line says stale, "
                 "call ui.refresh() before trusting reads; when something you expect has not appeared yet, wait with "
                 "ui.wait_for instead of repeating ui.refresh. Quit apps with ui.quit instead of cmd+q.",
          .linuxDesktop =
              "Values in the tree are cut at 120 characters; use ui.read for the full text. Lists with more than 500 "
              "items include only the items near the visible area, and the outline says how many are off screen; use "
              "ui.scroll to reach the rest. The distance of a page differs by app, so read positions again after "
              "scrolling. Rows that cannot be pressed, such as the rows of a file list or a settings list, are "
              "selected by SET r.pressed = true. Use ui.screenshot when the tree does not show what you need, such as "
              "images, "
              "canvases or layout; the image comes back with the result. If the last line says stale, call "
              "ui.refresh() before trusting reads; when something you expect has not appeared yet, wait with "
              "ui.wait_for instead of repeating ui.refresh. Quit apps with ui.quit instead of ctrl+q.",
      }),
      either({
          .mac = "Pointer: prefer SET pressed. Use ui.click for right clicks, double clicks, or targets outside the "
                 "tree. A screenshot line like (image 460x816px jpeg of 230x408pt at 1600,31) maps an image pixel "
                 "(px, py) to the screen point (1600 + px * 230 / 460, 31 + py * 408 / 816), which ui.click(x, y) "
                 "accepts. ui.menu opens context menus whose items join the tree. Use ui.windows and ui.window for "
                 "apps with several windows. Opening files in Downloads, Documents or Desktop with ui.open_url may "
                 "make macOS ask the user to allow access; handle that like any consent dialog below.",
          .linuxDesktop =
              "Pointer: prefer SET pressed. Use ui.click for right clicks, double clicks, or targets outside the tree. "
              "A screenshot line like (image 460x816px jpeg of 230x408pt at 1600,31) maps an image pixel (px, py) to "
              "the screen point (1600 + px * 230 / 460, 31 + py * 408 / 816), which ui.click(x, y) accepts. ui.menu "
              "opens context menus whose items join the tree. Use ui.windows and ui.window for apps with several "
              "windows. A sandboxed app (Flatpak or Snap) may ask through the desktop's portal before it opens a file "
              "given to ui.open_url; handle that like any consent dialog below.",
      }),
      either({
          .mac = "Consent dialogs: macOS access prompts (Allow, 許可), Open Anyway, and confirmations to share, send, "
                 "delete or overwrite belong to the user. Before pressing any of their buttons, always ask the user "
                 "with your question tool, such as AskUserQuestion in Claude Code, even when you think the answer is "
                 "obvious. Quote the dialog title and text as they appear, and offer its buttons as the choices. Then "
                 "press exactly the button the user picked, and report what the dialog did. If you have no question "
                 "tool, stop and ask in your reply instead. Never type passwords and never act on password or Touch "
                 "ID prompts; tell the user to finish those on the Mac.",
          .linuxDesktop =
              "Consent dialogs: access prompts of the desktop's portals (Allow, 許可), authentication prompts "
              "(Authenticate, 認証), and confirmations to share, send, delete or overwrite belong to the user. Before "
              "pressing any of their buttons, always ask the user with your question tool, such as AskUserQuestion in "
              "Claude Code, even when you think the answer is obvious. Quote the dialog title and text as they "
              "appear, and offer its buttons as the choices. Then press exactly the button the user picked, and "
              "report what the dialog did. If you have no question tool, stop and ask in your reply instead. Never "
              "type passwords and never act on password, polkit, sudo or keyring prompts; tell the user to finish "
              "those at the computer.",
      }),
      "Examples:",
      either({
          .mac = "  CALL ui.open(\"System Settings\"); MATCH (r:Row)-[:CHILD*1..3]->(t:StaticText {name:\"一般\"}) SET "
                 "r.pressed = true",
          .linuxDesktop = "  CALL ui.open_url(\"/usr/share\"); CALL ui.tree()",
      }),
      "  CALL ui.open(\"Calculator\"); CALL ui.key(\"escape\"); CALL ui.type(\"(12+34)*2=\"); MATCH (t:StaticText) "
      "RETURN t.value; CALL ui.quit(\"Calculator\")",
      either({
          .mac = "  CALL ui.open(\"Spotify\"); MATCH (f:ComboBox) WHERE f.name CONTAINS \"再生\" SET f.focused = true; "
                 "CALL ui.type(\"Priplami\"); CALL ui.key(\"return\"); CALL ui.wait_for(\"MATCH (b:Button) WHERE "
                 "b.name CONTAINS 'Priplami' RETURN b.id\", 5000)",
          .linuxDesktop = "  CALL ui.open(\"Text Editor\"); MATCH (f:TextArea) SET f.focused = true; CALL "
                          "ui.type(\"Notes\"); CALL ui.key(\"ctrl+s\"); CALL ui.wait_for(\"MATCH (s:Sheet) WHERE "
                          "s.name CONTAINS 'Save' RETURN s.id\", 5000)",
      }),
      either({
          .mac = "  MATCH (bar:Group {name:\"再生中バー\"})-[:CHILD*1..12]->(b:Button {name:\"再生\"}) SET b.pressed = "
                 "true RETURN b.name",
          .linuxDesktop = "  MATCH (s:Sheet)-[:CHILD*1..8]->(b:Button {name:\"Save\"}) SET b.pressed = true",
      }),
      "  CALL ui.press(\"e41\"); CALL ui.press(\"e17\"); MATCH (t:StaticText) RETURN t.value",
      "  MATCH (e:Element) RETURN e.role, count(e) ORDER BY count(e) DESC LIMIT 15",
  };
}

std::string instructionsOf(core::Desktop desktop) { return joined(instructionLines(desktop), "\n"); }

std::string usageOf(core::Desktop desktop) {
  const core::DesktopText description{
      .mac =
          "description: Look at and operate macOS apps (Spotify, Finder, Safari, Calculator, Notes, Mail, System "
          "Settings, Slack, Discord and any other app) through their accessibility tree with Cypher, from the "
          "shell. Use it for any request to look at, press, type into, open or quit a Mac app.",
      .linuxDesktop =
          "description: Look at and operate the apps of a Linux desktop (Firefox, Chromium, LibreOffice, "
          "Files, Text Editor, Calculator and any other app) through their accessibility tree (AT-SPI) "
          "with Cypher, from the shell. Use it for any request to look at, press, type into, open or quit "
          "a desktop app.",
  };
  return joined(
      {
          "---",
          "name: glimmerstrand",
          description.in(desktop),
          "---",
          "",
          "# Glimmerstrand",
          "",
          "Run `glimmerstrand do '<Cypher>' --app \"App\"` in the shell. It prints the same short table as the MCP "
          "tool do; add --json for JSON. Pass long statements on standard input with `glimmerstrand do - --app \"App\" "
          "<<'EOF'`. Each command starts a fresh session, so always pass --app or start with CALL ui.open(\"App\"). "
          "Below, \"do\" means this command and \"app\" means --app.",
          "",
          instructionsOf(desktop),
      },
      "\n");
}

}  // namespace

// Both versions are built once, on first use.
const std::string& serverInstructions() {
  static const core::DesktopText text{instructionsOf(core::Desktop::mac), instructionsOf(core::Desktop::linuxDesktop)};
  return text();
}

const std::string& usageText() {
  static const core::DesktopText text{usageOf(core::Desktop::mac), usageOf(core::Desktop::linuxDesktop)};
  return text();
}

}  // namespace glimmerstrand::server
