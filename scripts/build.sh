#!/usr/bin/env bash
# Configures and builds one preset (release by default): scripts/build.sh [preset] [cmake -D...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"; shift || true
cmake --preset "$preset" "$@" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
