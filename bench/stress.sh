#!/usr/bin/env bash
# The tiny-limits stress test for longer than the test run gives it:
#   bash bench/stress.sh [SECONDS]      (default 600)
# Every request over many pages with budgets of 1 to 50 ms and memory limits
# of 8 to 64 MiB; it aborts with the request that hung if one ever does.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}"
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j2 --target engine_tests
QUIRELLE_STRESS_SECONDS="$seconds" build/release/tests/engine_tests --gtest_filter='Stress.*'
