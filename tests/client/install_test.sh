#!/usr/bin/env bash
# An install into a DESTDIR runs from there: the installed client starts the
# installed daemon on the simulated desktop, the user unit verifies, the bash
# completion completes and the man page renders without warnings.
# Usage: install_test.sh BUILD_DIR VERSION
set -euo pipefail
build=$1 version=$2
work=$(mktemp -d)
bin=$work/root/usr/bin
cleanup() {
  "$bin/glimmerstrand" stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

DESTDIR=$work/root cmake --install "$build" --prefix /usr >/dev/null
export HOME=$work XDG_STATE_HOME=$work/state PATH=/usr/bin:/bin GLIMMERSTRAND_PLATFORM=sim
unset GLIMMERSTRAND_SOCKET GLIMMERSTRAND_SIM_APPS

[[ $("$bin/glimmerstrand" --version) == "glimmerstrand $version" ]] || fail "--version"
out=$("$bin/glimmerstrand" --app Calculator query 'MATCH (b:Button {name:"7"}) RETURN b.name')
[[ $out == *$'b.name\n7'* ]] || fail "query from the install: $out"
pid=$("$bin/glimmerstrand" --json status | sed -n 's/.*"pid":\([0-9]*\),"startedAt".*/\1/p')
[[ $(readlink "/proc/$pid/exe") == "$bin/glimmerstrand-native" ]] || fail "the daemon is not the installed one"
"$bin/glimmerstrand" stop >/dev/null || fail "stop"

unit=$work/root/usr/lib/systemd/user/glimmerstrand.service
grep -qx 'ExecStart=/usr/bin/glimmerstrand-native daemon' "$unit" || fail "ExecStart names the installed daemon"
grep -qx 'StandardError=journal' "$unit" || fail "the log goes to the journal"
mkdir -p "$work/unit" "$work/runtime"
chmod 700 "$work/runtime"
sed "s|^ExecStart=/usr/bin/|ExecStart=$bin/|" "$unit" >"$work/unit/glimmerstrand.service"
if command -v systemd-analyze >/dev/null; then
  complaints=$(XDG_RUNTIME_DIR=$work/runtime systemd-analyze --user verify --man=no "$work/unit/glimmerstrand.service" 2>&1) ||
    fail "systemd-analyze verify: $complaints"
  [[ -z $complaints ]] || fail "systemd-analyze verify: $complaints"
else
  # Without systemd: every line a comment, a known section, or a key of ours
  # in the section it belongs to; the command exists.
  section=
  while IFS= read -r line; do
    case $line in
      '' | '#'*) ;;
      '[Unit]' | '[Service]' | '[Install]') section=$line ;;
      *=*)
        key=${line%%=*}
        case "$section $key" in
          '[Unit] Description' | '[Unit] Documentation' | '[Service] Type' | '[Service] ExecStart' | \
            '[Service] StandardError' | '[Service] Restart' | '[Service] RestartSec' | '[Install] WantedBy') ;;
          *) fail "unit: '$key' in $section" ;;
        esac
        ;;
      *) fail "unit: '$line'" ;;
    esac
  done <"$work/unit/glimmerstrand.service"
  command=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$work/unit/glimmerstrand.service")
  [[ -x $command ]] || fail "unit: $command is not executable"
fi

# shellcheck source=/dev/null
source "$work/root/usr/share/bash-completion/completions/glimmerstrand"
complete_words() {
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _glimmerstrand
  echo "${COMPREPLY[*]}"
}
[[ $(complete_words glimmerstrand st) == "status stop" ]] || fail "completion of commands"
[[ $(complete_words glimmerstrand do --a) == "--app" ]] || fail "completion of options"
[[ $(complete_words glimmerstrand status --a) == "" ]] || fail "status takes no --app"
[[ -f $work/root/usr/share/zsh/vendor-completions/_glimmerstrand ]] || fail "zsh completion"

man=$work/root/usr/share/man/man1/glimmerstrand.1
grep -q "glimmerstrand $version" "$man" || fail "man page version"
for section in NAME SYNOPSIS DESCRIPTION COMMANDS OPTIONS 'EXIT STATUS' ENVIRONMENT FILES; do
  grep -q "^\.SH \"\?$section\"\?\$" "$man" || fail "man page has no section $section"
done
if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z "$man" 2>&1)
  [[ -z $warnings ]] || fail "man page: $warnings"
fi
echo "install ok"
