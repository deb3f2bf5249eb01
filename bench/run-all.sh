#!/usr/bin/env bash
# Runs every benchmark and prints the tables of bench/README.md:
#
#   bash bench/run-all.sh
#
# 1. builds the benchmark programs (build/release, or QUIRELLE_BUILD);
# 2. fetches the real-document corpus if it is not there (bench/fetch-corpus.sh);
# 3. quirelle_corpus_bench: every corpus document and the generated pages at
#    150 and 300 dpi, plain MuPDF into a reused buffer against the service, and
#    the open + first page of the small documents (QUIRELLE_CORPUS_REPETITIONS,
#    default 2; each page counts with its fastest time);
# 4. the viewer benchmarks (quirelle_viewer_bench);
# 5. bench/compare.sh (QtPdf, Poppler-Qt5, qpdf);
# 6. recorded pages and band drawing against plain MuPDF (quirelle_bench Cache/);
# 7. `quirelle render` against `mutool draw` on two manuals (bench/cli-vs-mutool.sh).
# The rest of quirelle_bench (the generated pages every way, requests, text,
# memory) runs on its own: see bench/README.md.
# Everything is also kept in build/bench-results/<time>/. About 15 minutes on a
# quiet 2-core machine; a busy machine makes every figure noisier, the ratios
# (both ways measured in one run, interleaved) less so.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/.." && pwd)
build=${QUIRELLE_BUILD:-$root/build/release}
out=$root/build/bench-results/$(date +%Y%m%d-%H%M%S)
mkdir -p "$out"
export QUIRELLE_BUILD=$build

[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" -j2 --target quirelle_corpus_bench quirelle_viewer_bench quirelle_bench > /dev/null
QUIRELLE_CORPUS_DIR=$(bash "$here/fetch-corpus.sh")
export QUIRELLE_CORPUS_DIR

step() { printf '\n## %s\n\n' "$*" | tee -a "$out/tables.md"; }
echo "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at the start" | tee "$out/tables.md"

step "Real documents, then the generated ones: service vs plain MuPDF (ms a page, ratio = raw / service)"
"$build/bench/quirelle_corpus_bench" --benchmark_repetitions="${QUIRELLE_CORPUS_REPETITIONS:-2}" \
  > "$out/corpus.txt" 2> "$out/corpus.err"
sed -n '/^| document/,$p' "$out/corpus.txt" | tee -a "$out/tables.md"
grep -E 'open_first_page.*(files|_mean )' "$out/corpus.txt" | tee -a "$out/tables.md" || true

step "Viewer benchmarks"
"$build/bench/quirelle_viewer_bench" > "$out/viewer.txt" 2> "$out/viewer.err"
grep '^Viewer/' "$out/viewer.txt" | tee -a "$out/tables.md"

step "Against QtPdf, Poppler-Qt5 and qpdf"
bash "$here/compare.sh" 2> "$out/compare.err" | tee -a "$out/tables.md"

step "Recorded pages and band drawing: speedup = plain MuPDF's time / the engine's"
QUIRELLE_CORPUS="$QUIRELLE_CORPUS_DIR/x" "$build/bench/quirelle_bench" --benchmark_filter='Cache/' \
  > "$out/cache.txt" 2> "$out/cache.err"
grep '^Cache/' "$out/cache.txt" | tee -a "$out/tables.md"

step "The command line against mutool: whole manuals to PNG at 150 dpi (ratio = quirelle / mutool)"
bash "$here/cli-vs-mutool.sh" 2> "$out/cli.err" | tee -a "$out/tables.md" || true

echo
echo "load average $(cut -d' ' -f1-3 /proc/loadavg) at the end; results in $out" | tee -a "$out/tables.md"
