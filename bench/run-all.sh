#!/usr/bin/env bash
# Runs every benchmark and prints the tables of bench/README.md:
#
#   bash bench/run-all.sh
#
# 1. builds the benchmark programs (build/release, or QUIRELLE_BUILD);
# 2. fetches the real-document corpus if it is not there (bench/fetch-corpus.sh);
# 3. the generated pages: quirelle_bench's renders, plain MuPDF into a reused
#    buffer against the service (QUIRELLE_REPETITIONS repetitions, default 5);
# 4. the corpus: quirelle_corpus_bench, every document at 150 and 300 dpi and
#    the open + first page of the small documents (QUIRELLE_CORPUS_REPETITIONS,
#    default 2; each page counts with its fastest time);
# 5. the viewer benchmarks (quirelle_viewer_bench);
# 6. bench/compare.sh (QtPdf, Poppler-Qt5, qpdf).
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
cmake --build "$build" -j2 --target quirelle_bench quirelle_corpus_bench quirelle_viewer_bench > /dev/null
QUIRELLE_CORPUS_DIR=$(bash "$here/fetch-corpus.sh")
export QUIRELLE_CORPUS_DIR

step() { printf '\n## %s\n\n' "$*" | tee -a "$out/tables.md"; }
echo "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at the start" | tee "$out/tables.md"

step "Generated pages: service vs plain MuPDF into a reused buffer"
"$build/bench/quirelle_bench" --benchmark_filter='^Render/.*/(raw_reused|service)/' \
  --benchmark_repetitions="${QUIRELLE_REPETITIONS:-5}" --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/generated.json" --benchmark_out_format=json > "$out/generated.txt" 2>&1
python3 - "$out/generated.json" << 'EOF' | tee -a "$out/tables.md"
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
median = {}  # (page, way) -> milliseconds
for r in runs:
    if r.get("aggregate_name") == "median":
        parts = r["run_name"].split("/")
        median[(parts[1] + "/" + parts[2], parts[3])] = r["real_time"]
print("| page | raw_reused ms | service ms | ratio |\n|---|---|---|---|")
total_raw = total_service = 0
for page in sorted({p for p, _ in median}):
    raw, service = median[(page, "raw_reused")], median[(page, "service")]
    total_raw += raw
    total_service += service
    print(f"| {page} | {raw:.3f} | {service:.3f} | {raw / service:.3f} |")
print(f"| **all** | {total_raw:.3f} | {total_service:.3f} | **{total_raw / total_service:.3f}** |")
EOF

step "Real documents: service vs plain MuPDF (ms a page, ratio = raw / service)"
"$build/bench/quirelle_corpus_bench" --benchmark_repetitions="${QUIRELLE_CORPUS_REPETITIONS:-2}" \
  > "$out/corpus.txt" 2> "$out/corpus.err"
sed -n '/^| document/,$p' "$out/corpus.txt" | tee -a "$out/tables.md"
grep -E 'open_first_page.*(files|_mean )' "$out/corpus.txt" | tee -a "$out/tables.md" || true

step "Viewer benchmarks"
"$build/bench/quirelle_viewer_bench" > "$out/viewer.txt" 2> "$out/viewer.err"
grep '^Viewer/' "$out/viewer.txt" | tee -a "$out/tables.md"

step "Against QtPdf, Poppler-Qt5 and qpdf"
bash "$here/compare.sh" 2> "$out/compare.err" | tee -a "$out/tables.md"

echo
echo "load average $(cut -d' ' -f1-3 /proc/loadavg) at the end; results in $out" | tee -a "$out/tables.md"
