#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Installs only what is missing; never prompts. Run as root (or with sudo).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git python3
  libxml2-dev libsqlite3-dev libsimdjson-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang-14 libclang-rt-14-dev
  libboost1.81-dev libsodium-dev libssl-dev openssl wrk
  nodejs chromium python3-zeep
  postgresql-15 postgresql-client-15 libpq-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The page's browser tests: the npm packages pinned in web/package-lock.json.
root="$(cd "$(dirname "$0")/.." && pwd)"
stamp="$root/web/node_modules/.installed-from-lock"
if ! cmp -s "$root/web/package-lock.json" "$stamp" 2>/dev/null; then
  echo "setup: npm ci in web/"
  (cd "$root/web" && npm ci --no-audit --no-fund --loglevel=error)
  cp "$root/web/package-lock.json" "$stamp"
fi
