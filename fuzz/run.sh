#!/usr/bin/env bash
# Builds the fuzz targets with clang-14 (ASan + UBSan + libFuzzer) and runs
# each for SECONDS (default 60): fuzz/run.sh [SECONDS] [TARGET...], targets
# engine, image and service. Fails on the first crash, leak, timeout or
# out-of-memory input; libFuzzer writes it to build/fuzz/artifacts/, and it
# belongs in tests/regressions/TARGET/ once fixed. The growing corpus stays
# in build/fuzz/corpus/TARGET between runs (seeded from the fixture builder).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(engine image service)
build=$root/build/fuzz

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 -DQUIRELLE_BUILD_FUZZERS=ON -DQUIRELLE_SANITIZE=address,undefined \
  -DQUIRELLE_BUILD_TOOLS=OFF -DQUIRELLE_BUILD_BENCHMARKS=OFF > /dev/null
# shellcheck disable=SC2046
cmake --build "$build" -j"$(nproc)" --target make_fuzz_seeds $(printf 'fuzz_%s ' "${targets[@]}")

"$build/fuzz/make_fuzz_seeds" "$build/seeds"
mkdir -p "$build/artifacts"
# A tight engine budget keeps every input short; the timeout is far above it.
export QUIRELLE_TIME_BUDGET_MS=${QUIRELLE_TIME_BUDGET_MS:-1000}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/fuzz/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/logs"
for target in "${targets[@]}"; do
  printf '\n==== fuzz_%s for %s s\n' "$target" "$seconds"
  mkdir -p "$build/corpus/$target"
  log=$build/logs/$target.log
  status=0
  "$build/fuzz/fuzz_$target" "$build/corpus/$target" "$build/seeds/$target" \
    -max_total_time="$seconds" -timeout=30 -rss_limit_mb=3072 -max_len=65536 \
    -artifact_prefix="$build/artifacts/$target-" -print_final_stats=1 > "$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    tail -n 80 "$log"
    echo "fuzz_$target failed (exit $status); full log: $log"
    exit "$status"
  fi
  grep -E '^(#[0-9]+.*DONE|stat::)' "$log" || true
done
