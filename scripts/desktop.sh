#!/usr/bin/env bash
# A headless desktop for tests and agents: an X server, a session bus, the
# accessibility bus, optionally a window manager, and applications, each
# ready when its accessibility tree answers.
#
#   scripts/desktop.sh start [--wm] [APP...]   prints the environment, for eval
#   scripts/desktop.sh run [--wm] [APP...]     the same, then stays until stopped
#   scripts/desktop.sh stop                    stops what start started, by pid
#   scripts/desktop.sh status
#
# Everything lives in $GLIMMERSTRAND_DESKTOP_DIR (default: a folder of this
# user's under /tmp); a second desktop needs a folder of its own.
set -euo pipefail

dir=${GLIMMERSTRAND_DESKTOP_DIR:-/tmp/glimmerstrand-desktop-$(id -u)}
pids="$dir/pids"
envfile="$dir/env"

say() { echo "desktop: $*" >&2; }

stop_all() {
  [ -f "$pids" ] || return 0
  # Last started, first stopped: applications before the buses they use.
  tac "$pids" | while read -r pid name; do
    kill "$pid" 2>/dev/null && say "stopped $name ($pid)" || true
  done
  for _ in $(seq 50); do
    local alive=0
    while read -r pid _; do kill -0 "$pid" 2>/dev/null && alive=1; done <"$pids"
    [ $alive = 0 ] && break
    sleep 0.1
  done
  while read -r pid _; do kill -9 "$pid" 2>/dev/null || true; done <"$pids"
  rm -f "$pids" "$envfile"
}

free_display() {
  for n in $(seq 90 140); do
    [ -e "/tmp/.X11-unix/X$n" ] || [ -e "/tmp/.X$n-lock" ] || { echo "$n"; return; }
  done
  say "no free display number"; exit 1
}

record() { echo "$1 $2" >>"$pids"; }

wait_for() {  # wait_for SECONDS DESCRIPTION COMMAND...
  local limit=$(($1 * 10)) what=$2; shift 2
  for _ in $(seq "$limit"); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
  say "timed out waiting for $what"; return 1
}

a11y_address() {
  gdbus call --session --dest org.a11y.Bus --object-path /org/a11y/bus --method org.a11y.Bus.GetAddress |
    sed -e "s/^('//" -e "s/',)$//"
}

# Whether an application of this pid has a tree that answers on the bus.
app_answers() {
  local pid=$1 bus
  for bus in $(gdbus call --address "$AT_SPI_BUS_ADDRESS" --dest org.a11y.atspi.Registry \
      --object-path /org/a11y/atspi/accessible/root --method org.a11y.atspi.Accessible.GetChildren |
      grep -o "':[0-9.]*'" | tr -d "'"); do
    local owner
    owner=$(gdbus call --address "$AT_SPI_BUS_ADDRESS" --dest org.freedesktop.DBus \
      --object-path /org/freedesktop/DBus --method org.freedesktop.DBus.GetConnectionUnixProcessID "$bus" |
      grep -o '[0-9]\+' | tail -1)
    if [ "$owner" = "$pid" ]; then
      gdbus call --address "$AT_SPI_BUS_ADDRESS" --dest "$bus" --object-path /org/a11y/atspi/accessible/root \
        --method org.a11y.atspi.Accessible.GetChildren | grep -q "objectpath" && return 0
    fi
  done
  return 1
}

start() {
  local wm=0 apps=()
  for arg in "$@"; do
    case $arg in
      --wm) wm=1 ;;
      *) apps+=("$arg") ;;
    esac
  done
  if [ -f "$pids" ]; then say "already running in $dir (stop it first)"; exit 1; fi
  mkdir -p "$dir/runtime" && chmod 700 "$dir" "$dir/runtime"
  : >"$pids"
  local n; n=$(free_display)
  export DISPLAY=":$n" XDG_RUNTIME_DIR="$dir/runtime"
  # A bus address left by another desktop would stop this one coming up.
  unset AT_SPI_BUS_ADDRESS DBUS_SESSION_BUS_ADDRESS
  # -noreset: the server would otherwise reset whenever its last client leaves,
  # taking the root window properties set below with it.
  Xvfb "$DISPLAY" -screen 0 1280x800x24 -nolisten tcp -noreset >"$dir/xvfb.log" 2>&1 &
  record $! Xvfb
  wait_for 10 "the X server" xdpyinfo -display "$DISPLAY"
  local bus
  bus=$(dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=1 --address="unix:path=$dir/bus")
  record "$(echo "$bus" | sed -n 2p)" dbus-daemon
  export DBUS_SESSION_BUS_ADDRESS; DBUS_SESSION_BUS_ADDRESS=$(echo "$bus" | sed -n 1p)
  /usr/libexec/at-spi-bus-launcher --launch-immediately >"$dir/at-spi.log" 2>&1 &
  record $! at-spi-bus-launcher
  wait_for 10 "the accessibility bus" a11y_address
  export AT_SPI_BUS_ADDRESS; AT_SPI_BUS_ADDRESS=$(a11y_address)
  gdbus call --session --dest org.a11y.Bus --object-path /org/a11y/bus \
    --method org.freedesktop.DBus.Properties.Set org.a11y.Status IsEnabled '<true>' >/dev/null
  # Qt finds the accessibility bus through this root window property, as on a
  # desktop session; asking the session bus instead races its own start-up
  # and the application never registers.
  xprop -display "$DISPLAY" -root -f AT_SPI_BUS 8s -set AT_SPI_BUS "$AT_SPI_BUS_ADDRESS"
  export NO_AT_BRIDGE=0 QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 QT_ACCESSIBILITY=1 GTK_THEME=Adwaita
  if [ $wm = 1 ]; then
    openbox >"$dir/openbox.log" 2>&1 &
    record $! openbox
  fi
  cat >"$envfile" <<ENV
export DISPLAY='$DISPLAY'
export DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS'
export AT_SPI_BUS_ADDRESS='$AT_SPI_BUS_ADDRESS'
export XDG_RUNTIME_DIR='$XDG_RUNTIME_DIR'
export NO_AT_BRIDGE=0 QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 QT_ACCESSIBILITY=1 GTK_THEME=Adwaita
ENV
  for app in "${apps[@]}"; do
    # shellcheck disable=SC2086
    setsid $app >"$dir/$(basename "${app%% *}").log" 2>&1 &
    local pid=$!
    record $pid "$(basename "${app%% *}")"
    wait_for 30 "$app" app_answers $pid
    echo "export GLIMMERSTRAND_PID_$(basename "${app%% *}" | tr -c 'A-Za-z0-9\n' _)=$pid" >>"$envfile"
  done
  cat "$envfile"
}

case ${1:-} in
  start) shift; start "$@" ;;
  run) shift; trap stop_all EXIT INT TERM; start "$@"; while :; do sleep 3600 & wait $!; done ;;
  stop) stop_all ;;
  status)
    if [ -f "$pids" ]; then
      while read -r pid name; do
        kill -0 "$pid" 2>/dev/null && echo "$name $pid running" || echo "$name $pid gone"
      done <"$pids"
    else
      echo "no desktop in $dir"; exit 1
    fi ;;
  *) sed -n '2,11p' "$0" >&2; exit 2 ;;
esac
