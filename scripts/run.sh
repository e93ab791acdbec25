#!/usr/bin/env bash
# Installs what is missing, builds, and runs the favorites tool on the embedded
# SQLite catalog. Arguments are passed to the tool.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh release >/dev/null
exec "$root/build/release/apps/favorites/favorites" "$@"
