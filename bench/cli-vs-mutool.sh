#!/usr/bin/env bash
# `quirelle render` next to MuPDF's own `mutool draw` on whole manuals: every
# page to PNG at 150 dpi, wall and user time, the pictures' total size and the
# peak resident memory (GNU time). Prints a Markdown table with the ratios
# (quirelle / mutool); the aims are time within 1.3x, size within 1.5x and
# memory no more than mutool's.
#
#   bash bench/cli-vs-mutool.sh [MANUAL.pdf...]
#
# Without arguments: two manuals of the corpus (bench/fetch-corpus.sh, run
# first). The two programs alternate, three runs each, and the table keeps
# each one's fastest run, so a busy machine slows both alike.
#   QUIRELLE_BUILD   build directory (default build/release; built here if needed)
#   CLI_VS_MUTOOL_DPI, CLI_VS_MUTOOL_RUNS   150 and 3 by default
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/.." && pwd)
build=${QUIRELLE_BUILD:-$root/build/release}
dpi=${CLI_VS_MUTOOL_DPI:-150}
runs=${CLI_VS_MUTOOL_RUNS:-3}
command -v mutool > /dev/null || { echo "cli-vs-mutool: mutool is missing (Debian package mupdf-tools)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "cli-vs-mutool: /usr/bin/time is missing (Debian package time)" >&2; exit 1; }
[ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" -j2 --target quirelle_cli > /dev/null
quirelle=$build/tools/quirelle/quirelle

if [ $# -eq 0 ]; then
  corpus=$(bash "$here/fetch-corpus.sh")/x/usr/share/doc/texlive-doc/latex
  set -- "$corpus/l3kernel/interface3.pdf" "$corpus/beamer/beameruserguide.pdf"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One run: "wall user peak_kb bytes".
measure() {
  local out=$1; shift
  rm -rf "$out" && mkdir -p "$out"
  /usr/bin/time -f '%e %U %M' -o "$work/time" "$@" > /dev/null 2>&1
  echo "$(cat "$work/time") $(du -sb "$out" | cut -f1)"
}
# Keeps the fastest of the runs (the size and memory do not vary).
best() { sort -n | head -1; }

echo "| manual | pages | mutool s (user) | quirelle s (user) | time | mutool MB | quirelle MB | size | mutool RSS MB | quirelle RSS MB | memory |"
echo "|---|---|---|---|---|---|---|---|---|---|---|"
for pdf in "$@"; do
  pages=$("$quirelle" info "$pdf" | sed -n 's/^pages: *//p')
  : > "$work/mutool" && : > "$work/quirelle"
  for _ in $(seq "$runs"); do
    measure "$work/m" mutool draw -r "$dpi" -o "$work/m/page-%d.png" "$pdf" >> "$work/mutool"
    measure "$work/q" "$quirelle" render "$pdf" --dpi "$dpi" --out "$work/q" >> "$work/quirelle"
  done
  read -r mw mu mm mb < <(best < "$work/mutool")
  read -r qw qu qm qb < <(best < "$work/quirelle")
  awk -v n="$(basename "$pdf")" -v p="$pages" -v mw="$mw" -v mu="$mu" -v mm="$mm" -v mb="$mb" \
      -v qw="$qw" -v qu="$qu" -v qm="$qm" -v qb="$qb" 'BEGIN {
    printf "| %s | %d | %.1f (%.1f) | %.1f (%.1f) | %.2fx | %.1f | %.1f | %.2fx | %.1f | %.1f | %.2fx |\n",
      n, p, mw, mu, qw, qu, qw / mw, mb / 1e6, qb / 1e6, qb / mb, mm / 1024, qm / 1024, qm / mm }'
done
