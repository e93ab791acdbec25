#!/usr/bin/env bash
# Installs what is missing, builds, and starts favoritesd on the embedded SQLite
# demo catalog demo/catalog.db (made with `favorites catalog demo` on first use).
#
#   bash scripts/run.sh                    favoritesd on http://127.0.0.1:8080
#   bash scripts/run.sh --listen 0.0.0.0:9000 [favoritesd options...]
#   bash scripts/run.sh favorites ARGS...  the administrators' tool on the demo catalog
#
# KIV_CATALOG chooses another catalog file; for the tool, KIV_USER (default
# alice) the user its favorites commands act as.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# Stay in the caller's directory: file arguments are relative to it.
bash "$root/scripts/setup.sh"
if ! build_log="$(bash "$root/scripts/build.sh" release --target favoritesd --target favorites 2>&1)"; then
  printf '%s\n' "$build_log" >&2
  echo "run: the build failed" >&2
  exit 1
fi
tool="$root/build/release/apps/favorites/favorites"
server="$root/build/release/apps/favoritesd/favoritesd"

export KIV_CATALOG="${KIV_CATALOG:-$root/demo/catalog.db}"
if [ ! -e "$KIV_CATALOG" ]; then
  mkdir -p "$(dirname "$KIV_CATALOG")"
  "$tool" catalog demo
fi

if [ "${1:-}" = "favorites" ]; then
  shift
  export KIV_USER="${KIV_USER:-alice}"
  exec "$tool" "$@"
fi

echo "Catalog: $KIV_CATALOG"
echo "Sign in as alice, bob, carol, dave or admin; every demo password is: demo"
echo "Stop with Ctrl-C. The administrators' tool: bash scripts/run.sh favorites --help"
exec "$server" --catalog "$KIV_CATALOG" "$@"
