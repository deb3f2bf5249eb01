#!/usr/bin/env bash
# Builds everything and runs every test:
#   1. the whole build and its tests (core, engine, service, exported symbols;
#      the viewer tests under a virtual X server, which their test command starts
#      with xvfb-run, leaving screenshots in build/release/artifacts/viewer);
#   2. an application built against the installed package (with CMake, and with
#      pkg-config), run on the sample;
#   3. core, engine and service tests under AddressSanitizer and UBSan;
#   4. core and service tests under ThreadSanitizer;
#   5. each fuzz target for 60 s (clang, ASan + UBSan + libFuzzer).
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

step "example application through pkg-config"
export PKG_CONFIG_PATH="$root/build/install/lib/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$root/build/example/render_page_pc" "$root/examples/render-page/main.cpp" \
  $(pkg-config --cflags --libs quirelle)
LD_LIBRARY_PATH="$root/build/install/lib" "$root/build/example/render_page_pc" "$root/samples/sample.pdf" \
  "$root/build/example/page-1-pc.png"
unset PKG_CONFIG_PATH

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
sanitized asan address,undefined \
  "core_tests engine_tests service_tests fuzz_engine_regressions fuzz_image_regressions fuzz_service_regressions"
sanitized tsan thread "core_tests service_tests"

step "fuzz targets"
bash "$root/fuzz/run.sh" 60
