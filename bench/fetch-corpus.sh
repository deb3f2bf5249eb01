#!/usr/bin/env bash
# Fetches the real-document corpus the corpus benchmarks and bench/compare.sh
# render: the PDF manuals listed in bench/corpus.txt, from the Debian
# documentation packages that ship them (apt-get download + dpkg-deb -x).
#
#   bash bench/fetch-corpus.sh          # prints the directory of the corpus
#
# The corpus lives in a cache directory, never in the repository:
#   QUIRELLE_CORPUS_DIR   default ${XDG_CACHE_HOME:-$HOME/.cache}/quirelle-corpus
#                         debs/  the downloaded packages (kept, so a second run
#                                downloads nothing; a .deb put there by hand is used)
#                         x/     the packages unpacked, as dpkg-deb -x leaves them
#   QUIRELLE_CORPUS_LIST  default bench/corpus.txt
# A package whose listed files are all present is not touched again. Needs the
# apt package lists (apt-get update) only when something must be downloaded.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
dir=${QUIRELLE_CORPUS_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/quirelle-corpus}
list=${QUIRELLE_CORPUS_LIST:-$here/corpus.txt}

die() {
  echo "fetch-corpus: $*" >&2
  exit 1
}
[ -r "$list" ] || die "no document list at $list"
command -v dpkg-deb > /dev/null || die "dpkg-deb is missing (this script needs a Debian system)"

# "package path" for every listed document.
entries=$(awk '!/^[[:space:]]*#/ && NF >= 2 {print $1, $2}' "$list")
[ -n "$entries" ] || die "$list lists no document"

present() { # path: the listed file is there, or its .gz is there to unpack
  [ -s "$dir/x/$1" ] || [ -s "$dir/x/$1.gz" ]
}

mkdir -p "$dir/debs" "$dir/x"
for package in $(echo "$entries" | awk '{print $1}' | sort -u); do
  complete=1
  for path in $(echo "$entries" | awk -v p="$package" '$1 == p {print $2}'); do
    present "$path" || complete=0
  done
  [ "$complete" = 1 ] && continue

  deb=$(find "$dir/debs" -maxdepth 1 -name "${package}_*.deb" | sort | tail -n 1)
  if [ -z "$deb" ]; then
    echo "fetch-corpus: downloading $package" >&2
    (cd "$dir/debs" && apt-get download -q "$package" 2> >(grep -v "unsandboxed as root" >&2) >&2) ||
      die "apt-get download $package failed (run apt-get update first?)"
    deb=$(find "$dir/debs" -maxdepth 1 -name "${package}_*.deb" | sort | tail -n 1)
    [ -n "$deb" ] || die "apt-get download $package left no .deb in $dir/debs"
  fi
  echo "fetch-corpus: unpacking $(basename "$deb")" >&2
  dpkg-deb -x "$deb" "$dir/x"
done

# Every listed file must be there now; unpack the gzip-compressed ones.
count=0
while read -r package path; do
  if [ ! -s "$dir/x/$path" ] && [ -s "$dir/x/$path.gz" ]; then
    gzip -dc "$dir/x/$path.gz" > "$dir/x/$path.tmp" && mv "$dir/x/$path.tmp" "$dir/x/$path"
  fi
  [ -s "$dir/x/$path" ] || die "$package does not ship $path (see $list)"
  count=$((count + 1))
done <<< "$entries"
echo "fetch-corpus: $count documents under $dir/x" >&2
echo "$dir"
