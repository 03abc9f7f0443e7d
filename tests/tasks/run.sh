#!/usr/bin/env bash
# The agent task suite: installs the MCP client SDK from the npm registry into
# tests/tasks/node_modules (as pinned by package-lock.json), then runs every
# task on a headless desktop of its own. Arguments go to run.mjs
# (--build DIR, --report FILE, --only NAME,..., --wayland sway). Exits non-zero when a task fails.
set -euo pipefail
cd "$(dirname "$0")"
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "tasks: node and npm are needed (scripts/setup.sh installs them)" >&2
  exit 1
fi
# Installs again only when the lock file changed since the last install.
if [ ! -f node_modules/.package-lock.json ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
  npm ci --no-audit --no-fund --loglevel=error
fi
exec node run.mjs "$@"
