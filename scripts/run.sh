#!/usr/bin/env bash
# Installs what the build needs, builds the quirelle command line and takes it
# on a short tour of the bundled sample: info, render, search and export.
# Everything it writes goes to out/.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/setup.sh"
cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$root/build/release" -j"$(nproc)" --target quirelle_cli
quirelle="$root/build/release/tools/quirelle/quirelle"
sample="$root/samples/sample.pdf"
out="$root/out"
mkdir -p "$out"

tour() {
  printf '\n$ quirelle %s\n' "$*"
  "$quirelle" "$@"
}
cd "$root"
tour info samples/sample.pdf --links
tour render samples/sample.pdf --dpi 110 --out out/pages
tour search samples/sample.pdf "page"
tour export samples/sample.pdf 3,1 --out out/pages-3-and-1.pdf
tour info out/pages-3-and-1.pdf
printf '\nThe rendered pages are in %s/pages/, the exported file is %s/pages-3-and-1.pdf.\n' "$out" "$out"
