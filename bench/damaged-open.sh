#!/bin/bash
# The damaged-file open run (not part of CI): damaged copies of manuals of the
# corpus (bench/fetch-corpus.sh) and of files the test builder makes, each
# opened in a process of its own by this build, by a reference build (say the
# main branch's, to see that nothing that opened before fails now) and by
# QtPdf. Prints how many files each could not open.
#
#   bash bench/damaged-open.sh [BUILD_DIR] [REFERENCE_BUILD_DIR] [MANUALS]
#
# MANUALS (default 60) manuals under 4 MB are picked evenly from the corpus;
# each gives damaged copies of itself and of a copy rewritten without object
# streams by qpdf (so that its page tree is plain text a damage can reach).
# Results per file: BUILD_DIR/damaged-open/results.tsv (2 opened and its
# first page drawn, 1 opened without a page drawn, 0 not opened).
set -euo pipefail
build=$(realpath "${1:-build/release}")
reference=${2:+$(realpath "$2")}
manuals=${3:-60}
corpus=${QUIRELLE_CORPUS:-$HOME/.cache/quirelle-corpus/x/usr/share/doc}
work=$build/damaged-open
export QT_QPA_PLATFORM=offscreen GLOG_minloglevel=3

cmake --build "$build" --target quirelle_make_damaged quirelle_compare_quirelle quirelle_compare_qtpdf >/dev/null
rm -rf "$work"
mkdir -p "$work/plain" "$work/files"

mapfile -t all < <(find "$corpus" -name '*.pdf' -size -4M | sort)
step=$(( ${#all[@]} / manuals )); [ "$step" -ge 1 ] || step=1
sources=()
for ((i = 0; i < ${#all[@]} && ${#sources[@]} < manuals * 2; i += step)); do
    manual=${all[$i]}
    plain=$work/plain/$(basename "$manual" .pdf).plain.pdf
    sources+=("$manual")
    # qpdf exits 3 for warnings; a copy it could not write is left out.
    qpdf --object-streams=disable "$manual" "$plain" >/dev/null 2>&1 || true
    [ -s "$plain" ] && sources+=("$plain")
done
"$build/bench/quirelle_make_damaged" "$work/files" "${sources[@]}"

# What the program makes of the file, in its own process, within 60 s.
opens() {
    local out
    out=$(timeout 60 "$1" render 10 1 "$2" 2>&1 </dev/null) || { echo 0; return; }
    case $out in *"cannot open"*) echo 0 ;; *pages=1*) echo 2 ;; *pages=*) echo 1 ;; *) echo 0 ;; esac
}
export -f opens

programs=("$build/bench/quirelle_compare_quirelle" "$build/bench/quirelle_compare_qtpdf")
[ -n "$reference" ] && programs+=("$reference/bench/quirelle_compare_quirelle")
export PROGRAMS="${programs[*]}"
find "$work/files" -name '*.pdf' | sort | xargs -P 2 -I{} bash -c '
    line=$(basename "{}")
    for program in $PROGRAMS; do line+="	$(opens "$program" "{}")"; done
    echo "$line"' > "$work/results.tsv"

awk -F'\t' -v ref="${reference:+1}" '
    { files++; if (!$2) fail++; if (!$3) qt++; if (ref && !$4) old++
      if ($2 == 1) empty++; if ($3 == 1) qtEmpty++; if (ref && $4 == 1) oldEmpty++
      if (ref && $4 && !$2) { worse++; print "now fails: " $1 }
      if (ref && $4 == 2 && $2 < 2) print "no longer draws a page: " $1
      if ($3 && !$2) print "QtPdf opens, this build does not: " $1 }
    END { printf "files %d; cannot open: this build %d, QtPdf %d", files, fail, qt
          if (ref) printf ", reference build %d", old
          printf "\nopened without a page drawn: this build %d, QtPdf %d", empty, qtEmpty
          if (ref) printf ", reference build %d", oldEmpty
          if (ref) printf "\nopened by the reference build and not by this one: %d", worse
          printf "\n" }' "$work/results.tsv"
