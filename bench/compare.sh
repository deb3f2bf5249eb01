#!/usr/bin/env bash
# Pages per second of this library, Debian's QtPdf and Debian's Poppler-Qt5 on
# the same pages at the same sizes, and an export of a page selection next to
# `qpdf --empty --pages` on the same files. Prints Markdown tables.
#
#   bash bench/compare.sh
#
# Inputs: the real-document corpus (bench/fetch-corpus.sh, run first; it
# downloads nothing when the corpus is there) and the generated documents
# (samples/sample.pdf, the heavy and the 1,000-page document of the benchmarks).
# Every document is rendered by the three programs in turn (the order rotates
# from document to document), so a busy machine slows all of them alike; each
# program times its own renders on one thread.
#   QUIRELLE_BUILD               build directory (default build/release; built here if needed)
#   QUIRELLE_COMPARE_DPIS        resolutions (default "150")
#   QUIRELLE_COMPARE_MAX_PAGES   pages per corpus document (default 20)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/.." && pwd)
build=${QUIRELLE_BUILD:-$root/build/release}
dpis=${QUIRELLE_COMPARE_DPIS:-150}
max_pages=${QUIRELLE_COMPARE_MAX_PAGES:-20}
export QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$(mktemp -d)}

[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
engines=(quirelle)
targets=(quirelle_compare_quirelle quirelle_bench_documents)
known=$(cmake --build "$build" --target help)
for other in qtpdf poppler; do
  if grep -q "quirelle_compare_$other\b" <<< "$known"; then
    engines+=("$other")
    targets+=("quirelle_compare_$other")
  else
    echo "compare: no $other program (its Debian package is missing); left out" >&2
  fi
done
cmake --build "$build" -j2 --target "${targets[@]}" > /dev/null
command -v qpdf > /dev/null || echo "compare: qpdf is missing, no export comparison" >&2

corpus=$(bash "$here/fetch-corpus.sh")/x
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/bench/quirelle_bench_documents" "$work/generated"

corpus_files=()
while read -r _ path _; do corpus_files+=("$corpus/$path"); done < <(grep -v '^[[:space:]]*#' "${QUIRELLE_CORPUS_LIST:-$here/corpus.txt}" | awk 'NF >= 2')
generated_files=("$root/samples/sample.pdf" "$work/generated/heavy.pdf" "$work/generated/long.pdf")

field() { # line key
  sed -n "s/.*\b$2=\([^ ]*\).*/\1/p" <<< "$1"
}

# set name dpi max_pages files...: one row of the rendering table.
render_set() {
  local name=$1 dpi=$2 pages=$3
  shift 3
  declare -A seconds pixels drawn
  local e i=0 file line
  for e in "${engines[@]}"; do seconds[$e]=0 pixels[$e]=0 drawn[$e]=0; done
  for file in "$@"; do
    local n=${#engines[@]}
    for ((k = 0; k < n; k++)); do
      e=${engines[$(((i + k) % n))]}
      line=$("$build/bench/quirelle_compare_$e" render "$dpi" "$pages" "$file" 2> /dev/null) || true
      seconds[$e]=$(awk -v a="${seconds[$e]}" -v b="$(field "$line" render_s)" 'BEGIN {print a + b}')
      pixels[$e]=$((pixels[$e] + $(field "$line" pixels)))
      drawn[$e]=$((drawn[$e] + $(field "$line" pages)))
    done
    i=$((i + 1))
  done
  local ours
  ours=$(awk -v p="${drawn[quirelle]}" -v s="${seconds[quirelle]}" 'BEGIN {printf "%.1f", p / s}')
  local row="| $name | $dpi | ${drawn[quirelle]} | $ours"
  for e in "${engines[@]:1}"; do
    local rate
    rate=$(awk -v p="${drawn[$e]}" -v s="${seconds[$e]}" 'BEGIN {printf "%.1f", p / s}')
    row+=" | $rate | $(awk -v a="$ours" -v b="$rate" 'BEGIN {printf "%.2fx", a / b}')"
    # Same pages, same sizes: the pixel totals must agree.
    [ "${pixels[$e]}" = "${pixels[quirelle]}" ] || row+=" (pixels differ: ${pixels[$e]} vs ${pixels[quirelle]}, ${drawn[$e]} pages)"
  done
  echo "$row |"
}

echo "Rendering, pages per second (one thread; Quirelle through its public interface):"
echo
header="| pages | dpi | count | Quirelle"
rule="|---|---|---|---"
for e in "${engines[@]:1}"; do
  header+=" | $e | Quirelle vs $e"
  rule+="|---|---"
done
echo "$header |"
echo "$rule|"
for dpi in $dpis; do
  render_set "corpus (${#corpus_files[@]} manuals, <= $max_pages pages each)" "$dpi" "$max_pages" "${corpus_files[@]}"
  render_set "generated (sample, heavy, 1,000-page text)" "$dpi" 1000 "${generated_files[@]}"
done

command -v qpdf > /dev/null || exit 0
echo
echo "Export of every odd page of each file (opening included; qpdf as a process, Quirelle"
echo "in one process and, for comparison, as one process per file):"
echo
mkdir -p "$work/ours" "$work/qpdf" "$work/ours1"
export_set() {
  local name=$1
  shift
  local ours qpdf_s=0 qpdf_bytes=0 file start whole=0
  ours=$("$build/bench/quirelle_compare_quirelle" export "$work/ours" "$@")
  for file in "$@"; do
    start=$EPOCHREALTIME
    "$build/bench/quirelle_compare_quirelle" export "$work/ours1" "$file" > /dev/null
    whole=$(awk -v a="$whole" -v s="$start" -v e="$EPOCHREALTIME" 'BEGIN {print a + e - s}')
    start=$EPOCHREALTIME
    qpdf --empty --pages "$file" 1-z:odd -- "$work/qpdf/$(basename "$file")"
    qpdf_s=$(awk -v a="$qpdf_s" -v s="$start" -v e="$EPOCHREALTIME" 'BEGIN {print a + e - s}')
    qpdf_bytes=$((qpdf_bytes + $(stat -c %s "$work/qpdf/$(basename "$file")")))
  done
  awk -v name="$name" -v files="$#" -v pages="$(field "$ours" pages)" -v s="$(field "$ours" export_s)" \
    -v bytes="$(field "$ours" bytes)" -v whole="$whole" -v qs="$qpdf_s" -v qb="$qpdf_bytes" 'BEGIN {
      printf "| %s | %d | %d | %.3f s | %.3f s | %.3f s | %.2fx | %.1f MB | %.1f MB |\n",
        name, files, pages, s, whole, qs, qs / s, bytes / 1e6, qb / 1e6 }'
}
echo "| files | count | pages | Quirelle | Quirelle, a process each | qpdf | Quirelle vs qpdf | Quirelle output | qpdf output |"
echo "|---|---|---|---|---|---|---|---|---|"
export_set "corpus" "${corpus_files[@]}"
export_set "generated" "${generated_files[@]}"
