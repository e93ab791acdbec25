#!/usr/bin/env bash
# Configures and builds one preset (release by default):
#   scripts/build.sh [preset] [-DNAME=VALUE ...] [--target T ...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"; shift || true
defines=()
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --target) targets+=(--target "$2"); shift 2 ;;
    *) defines+=("$1"); shift ;;
  esac
done
cmake --preset "$preset" "${defines[@]}" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)" "${targets[@]}"
