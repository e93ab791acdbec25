#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan, libraries
# instrumented too) in build/fuzz and runs each for a bounded time.
#   scripts/fuzz.sh [seconds-per-target]     default 30
# New corpus entries go to build/fuzz/corpus/<target>/ (the seeds under
# fuzz/corpus/<target>/ are only read); a crashing input is written to
# build/fuzz/artifacts/<target>/ and the script fails. Keep such an input as a
# named regression file beside the tests of the code it broke.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
secs="${1:-30}"
build="$root/build/fuzz"
san="-fsanitize=address,undefined"

cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++-14 \
  -DKIV_BUILD_FUZZ=ON -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined" \
  -DCMAKE_EXE_LINKER_FLAGS="$san" -DCMAKE_SHARED_LINKER_FLAGS="$san" >/dev/null
cmake --build "$build" -j 2 --target json_evaluator_fuzz soap_envelope_fuzz favorites_document_fuzz

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export KIV_LOG_LEVEL=5
# The favorites schema the stored-document target validates against.
export KIV_DATA_DIR="$root/data"

status=0
for target in json_evaluator_fuzz soap_envelope_fuzz favorites_document_fuzz; do
  corpus="$build/corpus/$target"
  artifacts="$build/artifacts/$target"
  mkdir -p "$corpus" "$artifacts"
  extra=()
  if [ "$target" = soap_envelope_fuzz ]; then extra+=(-dict="$root/fuzz/soap.dict"); fi
  if [ "$target" = favorites_document_fuzz ]; then extra+=(-dict="$root/fuzz/favorites.dict"); fi
  echo "fuzz: $target for ${secs}s"
  if ! "$build/fuzz/$target" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
       -print_final_stats=1 -artifact_prefix="$artifacts/" "${extra[@]}" "$corpus" "$root/fuzz/corpus/$target"; then
    echo "fuzz: $target found a failing input in $artifacts" >&2
    status=1
  fi
done
exit $status
