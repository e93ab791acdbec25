#!/usr/bin/env bash
# Installs what is missing, builds, and runs the favorites tool on the embedded
# SQLite catalog demo/catalog.db (made with `favorites catalog demo` on first use).
#
#   bash scripts/run.sh                 the demo user's tree and a few example commands
#   bash scripts/run.sh ARGS...         favorites ARGS... on the demo catalog
#
# The catalog file and the user default to demo/catalog.db and alice; set
# KIV_CATALOG or KIV_USER (or pass --catalog / --user) to choose others.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# Stay in the caller's directory: file arguments are relative to it.
bash "$root/scripts/setup.sh"
if ! build_log="$(bash "$root/scripts/build.sh" release 2>&1)"; then
  printf '%s\n' "$build_log" >&2
  echo "run: the build failed" >&2
  exit 1
fi
tool="$root/build/release/apps/favorites/favorites"

export KIV_CATALOG="${KIV_CATALOG:-$root/demo/catalog.db}"
export KIV_USER="${KIV_USER:-alice}"
if [ ! -e "$KIV_CATALOG" ]; then
  mkdir -p "$(dirname "$KIV_CATALOG")"
  "$tool" catalog demo
fi

if [ $# -gt 0 ]; then
  exec "$tool" "$@"
fi

show() {
  local shown="" a
  for a in "$@"; do
    case "$a" in *" "*) shown+=" \"$a\"" ;; *) shown+=" $a" ;; esac
  done
  echo
  echo "\$ favorites$shown"
  "$tool" "$@" || echo "(exit status $?)"
}
echo "Catalog: $KIV_CATALOG    user: $KIV_USER"
show tree
show ls Sales
show is "/shared/Common/Company KPIs" "/shared/HR/Reports/Headcount"
show add "/shared/HR/Reports/Headcount"
show --user dave tree
echo
echo "More: bash scripts/run.sh --help"
