#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
#   scripts/test.sh            release build, all tests
#   scripts/test.sh asan       AddressSanitizer + UBSan build, all tests
#   scripts/test.sh tsan       ThreadSanitizer build, the concurrency tests
#   scripts/test.sh thread-safety  clang build with its thread-safety analysis
#                              and -Werror: checks the lock annotations (no tests)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
bash scripts/setup.sh
werror=OFF
if [ "${CI:-}" = "true" ]; then werror=ON; fi
targets=()
if [ "$preset" = "tsan" ]; then
  # Only the concurrency tests run under ThreadSanitizer.
  # favoritesd and the tool serve the server's concurrency test.
  for t in platform_concurrency_tests xml_concurrency_tests gd_concurrency_tests sqlitecatalog_concurrency_tests \
           catalog_conformance_tests favorites_concurrency_tests favoritesd favorites; do
    targets+=(--target "$t")
  done
fi
if [ "$preset" = "thread-safety" ]; then
  # The analysis runs while compiling: the build passing is the check.
  bash scripts/build.sh thread-safety
  exit 0
fi
bash scripts/build.sh "$preset" -DKIV_WERROR=$werror "${targets[@]}"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# The several-writers test runs five runs of 600 adds per case; the sanitizer
# build, whose tool processes start several times slower, runs one of 60.
if [ "$preset" = "asan" ]; then
  export KIV_WRITER_RUNS="${KIV_WRITER_RUNS:-1}" KIV_WRITER_ADDS="${KIV_WRITER_ADDS:-60}"
fi
ctest --preset "$preset" --timeout 600
# The package, as an outside project builds against it (the sanitizer builds'
# libraries need their runtime, so only the release build is installed).
if [ "$preset" = "release" ]; then bash scripts/example.sh build/release; fi
