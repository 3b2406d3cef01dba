#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds the C example as a
# consumer would (CMake package, then pkg-config), and renders a crop with each.
#   check_package.sh BUILD_DIR SCRATCH BUNDLE
set -euo pipefail
build=$1; scratch=$2; bundle=$3
src=$(cd "$(dirname "$0")/.." && pwd)
rm -rf "$scratch"; mkdir -p "$scratch"
prefix="$scratch/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S "$src/examples/render_crop" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
"$scratch/cmake/render_crop" "$bundle" b1 "$scratch/cmake.png" 2 2>/dev/null

libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -1)
cc -std=c99 -Wall -Werror -o "$scratch/pc_render_crop" "$src/examples/render_crop/render_crop.c" \
  $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs xj_core stb)
"$scratch/pc_render_crop" "$bundle" b1 "$scratch/pc.png" 2 2>/dev/null
cmp "$scratch/cmake.png" "$scratch/pc.png"
echo "package consumers: CMake and pkg-config builds render the same crop"
