# Sourced by the setup scripts: installs the Debian packages named that are
# not installed yet, with sudo where not root; nothing when all are there.
install_missing() {
  local missing=() p sudo=""
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
