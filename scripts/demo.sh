#!/usr/bin/env bash
# The main job, end to end on a fresh machine: set-up, a Release build, the
# demo identity (a drawn face, generated), a sentence spoken by espeak-ng, and
# `xj render` of it to demo/demo.mp4 on the CPU.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/setup.sh
out="$here/demo"
mkdir -p "$out"

cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DXJ_BUILD_TESTS=OFF -DXJ_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j "$(nproc)" --target xj

echo "[demo] generating the demo identity into $out/bundle"
rm -rf "$out/bundle" "$out/motion"
/usr/bin/python3 tools/bundlegen/bundlegen.py demo --out "$out"

sentence=${XJ_DEMO_SENTENCE:-"Hello. I am a face drawn by a program, and I speak whatever you give me, one frame at a time, on your processor."}
espeak-ng -w "$out/speech.wav" "$sentence"

echo "[demo] rendering $out/demo.mp4"
# No NVIDIA decoder on a plain machine: the driver video decodes on the CPU without trying one.
XJ_DRIVER_HWDEC=0 build-demo/tools/xj render --bundle "$out/bundle" --audio "$out/speech.wav" --out "$out/demo.mp4" --steady b4 \
  | tee "$out/render.txt"
fps=$(sed -n 's/.*: \([0-9.]*\) frames per second.*/\1/p' "$out/render.txt")
echo "demo: the video is at $out/demo.mp4 ($fps frames per second on $(nproc) cores)"
