#!/usr/bin/env bash
# Installs a build into a temporary prefix and builds the example host
# (examples/favorites_host) against the installed package as an outside
# project would, with find_package(KivFavorites 1.0); then runs it twice (the
# second run finds the favorite already there), the installed tool on the
# catalog it made, and pkg-config.
#   scripts/example.sh [build-dir]      default build/release
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build/release}"
work="$(mktemp -d /tmp/kiv-example-XXXXXX)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
if [ -e "$work/prefix/include/qz/webcatalog/faultinjectingcatalog.h" ]; then
  echo "example: a test-only header was installed" >&2; exit 1
fi
cmake -S "$root/examples/favorites_host" -B "$work/build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$work/build" >/dev/null
export KIV_DATA_DIR="$work/prefix/share/kiv"
"$work/build/favorites_host" "$work/catalog.db"
"$work/build/favorites_host" "$work/catalog.db" | grep -q "already a favorite"
"$work/prefix/bin/favorites" --catalog "$work/catalog.db" --user ada tree | grep -q "Revenue -> /shared/Reports/Revenue"
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --modversion kiv-favorites | grep -qx "1.0.0"
echo "example: built against the installed package and ran"
