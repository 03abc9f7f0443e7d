#!/usr/bin/env bash
# The main job: installs, builds, starts a headless desktop with real
# applications (galculator, mousepad, gtk3-widget-factory), and runs a short
# agent session on it through the shell client, each statement shown with its
# reply and the changes it made. Leaves nothing running.
#
#   scripts/run.sh          on the real desktop
#   scripts/run.sh --sim    the simulated desktop's demo (as GLIMMERSTRAND_PLATFORM=sim does)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release glimmerstrand-native glimmerstrand
if [ "${1:-}" = --sim ] || [ "${GLIMMERSTRAND_PLATFORM:-}" = sim ]; then exec scripts/demo.sh; fi

client=$PWD/build/release/src/client/glimmerstrand
out=/tmp/glimmerstrand-demo
note=$out/note.txt
# A daemon and a desktop of this run's own, whatever else runs for this user.
work=$(mktemp -d)
export XDG_STATE_HOME=$work/state GLIMMERSTRAND_DESKTOP_DIR=$work/desktop
unset GLIMMERSTRAND_SOCKET GLIMMERSTRAND_PLATFORM GLIMMERSTRAND_SIM_APPS
finish() {
  "$client" stop >/dev/null 2>&1 || true
  "$client" desktop stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap finish EXIT
mkdir -p "$out"
rm -f "$note"

say() { printf '\n== %s\n' "$*"; }
run() {
  local shown=() word
  for word in "$@"; do
    case $word in *' '*) shown+=("'$word'") ;; *) shown+=("$word") ;; esac
  done
  printf '\n$ glimmerstrand %s\n' "${shown[*]}"
  "$client" "$@" || true
}

say "a headless desktop: Xvfb, the buses, openbox and three applications"
# Started from an empty folder, so that the save dialog opens there, and with
# settings of their own: the user's stay untouched, and no session that an
# earlier run left (mousepad asks to restore one) gets in the way.
(cd "$work" && XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache \
  "$client" desktop start galculator mousepad gtk3-widget-factory >"$work/env")
eval "$(cat "$work/env")"
run desktop status

say "the calculator: clear, type 12+34=, read the display"
run --app galculator do 'MATCH (c:CheckBox {name:"AC"}) SET c.pressed = true; CALL ui.type("12+34="); MATCH (d:TextArea) RETURN d.value'

say "a note in mousepad, saved through its own Save As dialog"
run --app mousepad do 'MATCH (t:TextArea) SET t.focused = true; CALL ui.type("Groceries: apples, bread, tea"); CALL ui.key("return"); CALL ui.type("written by an agent through the accessibility tree"); CALL ui.key("ctrl+s"); CALL ui.wait_for("MATCH (s:Sheet {name:\"Save As\"}) RETURN s.id", 10000)'
# The name field has the focus when the dialog opens. Typed rather than set:
# the dialog enables Save on key input only, once it has handled the keys.
run --app mousepad do "CALL ui.key(\"ctrl+a\"); CALL ui.type(\"$note\"); CALL ui.wait_for(\"MATCH (b:Button {name:'Save', enabled:true}) RETURN b.id\", 5000); MATCH (:Sheet {name:\"Save As\"})-[:CHILD*1..12]->(b:Button {name:\"Save\"}) SET b.pressed = true; CALL ui.wait_for(\"MATCH (w:Window) WHERE w.name STARTS WITH '$note' RETURN w.name\", 10000)"
printf '\n$ cat %s\n' "$note"
cat "$note" 2>/dev/null || echo "(not saved)"

say "settings in gtk3-widget-factory: the unchecked check button, and a radio button"
run --app gtk3-widget-factory do 'MATCH (c:CheckBox {name:"checkbutton", enabled:true}) WHERE c.value = "0" SET c.pressed = true; MATCH (r:RadioButton {name:"radiobutton", enabled:true}) WHERE r.value = "0" SET r.pressed = true'

say "a screenshot of the calculator"
reply=$("$client" --app galculator do 'CALL ui.screenshot()' || true)
printf '\n$ glimmerstrand --app galculator do %s\n%s\n' "'CALL ui.screenshot()'" "$reply"
image=$(printf '%s\n' "$reply" | sed -n 's/^image: //p' | head -1)
if [ -n "$image" ]; then
  cp "$image" "$out/screenshot.${image##*.}"
  echo "saved $out/screenshot.${image##*.} ($(stat -c %s "$out/screenshot.${image##*.}") bytes)"
fi

run status
say "stopping the daemon and the desktop"
