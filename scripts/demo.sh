#!/usr/bin/env bash
# The main job, end to end on a fresh machine: set-up, build and install the
# library, build the example C host against the installed package, generate a
# bundle and render a crop of it to a PNG.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/setup.sh
out="$here/demo"
mkdir -p "$out"

cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DXJ_BUILD_TESTS=OFF -DXJ_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j "$(nproc)"
cmake --install build-demo --prefix "$out/prefix" >/dev/null

cmake -S examples/render_crop -B "$out/example" -G Ninja -DCMAKE_PREFIX_PATH="$out/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$out/example" >/dev/null

/usr/bin/python3 tools/bundlegen/bundlegen.py bundle --crop 128 --width 320 --height 240 --out "$out/bundle"
"$out/example/render_crop" "$out/bundle" b1 "$out/crop.png" 0
echo "demo: the crop is at $out/crop.png"
