#!/usr/bin/env bash
# Installs what the build needs, builds the command-line tool and renders the
# bundled sample's pages to out/page-N.png through the service.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/setup.sh"
cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$root/build/release" -j"$(nproc)" --target quirelle-render
"$root/build/release/tools/quirelle-render" --dpi 110 "$root/samples/sample.pdf" "$root/out"
