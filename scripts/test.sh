#!/usr/bin/env bash
# Builds everything and runs every test:
#   1. the whole build and its tests (core, engine, service, exported symbols;
#      the viewer tests under a virtual X server, which their test command starts
#      with xvfb-run, leaving screenshots in build/release/artifacts/viewer);
#   2. an application built against the installed package, run on the sample;
#   3. core, engine and service tests under AddressSanitizer and UBSan;
#   4. core and service tests under ThreadSanitizer.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)
bash "$root/scripts/setup.sh"

step() { printf '\n==== %s\n' "$*"; }

step "build and test"
cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$root/build/release" -j"$jobs"
ctest --test-dir "$root/build/release" --output-on-failure

step "example application against the installed package"
rm -rf "$root/build/install" "$root/build/example"
cmake --install "$root/build/release" --prefix "$root/build/install" > /dev/null
cmake -S "$root/examples/render-page" -B "$root/build/example" -DCMAKE_PREFIX_PATH="$root/build/install" > /dev/null
cmake --build "$root/build/example" -j"$jobs"
LD_LIBRARY_PATH="$root/build/install/lib" "$root/build/example/render_page" "$root/samples/sample.pdf" \
  "$root/build/example/page-1.png"

sanitized() {
  local name=$1 sanitize=$2 tests=$3
  step "tests under $sanitize"
  cmake -S "$root" -B "$root/build/$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIRELLE_SANITIZE="$sanitize" \
    -DQUIRELLE_BUILD_TOOLS=OFF -DQUIRELLE_BUILD_BENCHMARKS=OFF > /dev/null
  # shellcheck disable=SC2086
  cmake --build "$root/build/$name" -j"$jobs" --target $tests
  ctest --test-dir "$root/build/$name" --output-on-failure -R "^(${tests// /|})\$"
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
sanitized asan address,undefined "core_tests engine_tests service_tests"
sanitized tsan thread "core_tests service_tests"
