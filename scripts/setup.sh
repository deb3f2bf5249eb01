#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the benchmarks and the tools need.
# Safe to run again: apt-get skips what is already installed.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git ca-certificates
  libmupdf-dev libmujs-dev libgumbo-dev libopenjp2-7-dev libjbig2dec0-dev
  libjpeg-dev libpng-dev zlib1g-dev libfreetype-dev libharfbuzz-dev
  libfontconfig-dev fonts-dejavu-core fonts-dejavu-extra libicu-dev
  qtbase5-dev qt5-image-formats-plugins
  libgoogle-glog-dev libgflags-dev libboost-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang-14 libfuzzer-14-dev libclang-rt-14-dev
  libcli11-dev nlohmann-json3-dev doxygen
  xvfb xauth
  qpdf qtpdf5-dev libpoppler-qt5-dev mupdf-tools
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then as_root=(); else as_root=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
