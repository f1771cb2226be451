#!/usr/bin/env bash
# Builds the consumer with pkg-config instead of CMake: PKG_CONFIG_PATH must name the installed
# lib/pkgconfig folder. Usage: build-with-pkg-config.sh OUTPUT
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck disable=SC2046
g++ -O1 "$here/main.cpp" -o "$1" $(pkg-config --cflags --libs bgpcommon) \
  -Wl,-rpath,"$(pkg-config --variable=libdir bgpcommon)"
