#!/usr/bin/env bash
# Takes a fresh Debian 12 machine to a build: Debian packages, then ONNX Runtime's
# runtime library and C/C++ headers from the npm registry into third_party/ (ignored).
# Idempotent: a second run checks what is there and returns quickly.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
tp="$here/third_party"
ort="$tp/onnxruntime"

pkgs=(build-essential cmake pkg-config ninja-build
      libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev ffmpeg
      libhwy-dev libstb-dev libgtest-dev libgmock-dev googletest libbenchmark-dev
      python3-onnx python3-numpy clang libclang-rt-14-dev espeak-ng
      libopencv-dev)  # the paste benchmark's alternative only
command -v npm >/dev/null 2>&1 || pkgs+=(nodejs npm)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "[setup] installing: ${missing[*]}"
  SUDO=; [ "$(id -u)" = 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ ! -f "$ort/lib/libonnxruntime.so.1" ] || [ ! -f "$ort/include/onnxruntime_cxx_api.h" ]; then
  echo "[setup] fetching ONNX Runtime (runtime and headers) from the npm registry"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  (cd "$tmp" && npm pack --silent onnxruntime-node@1.30.0 >/dev/null && npm pack --silent com.github.asus4.onnxruntime@0.4.9 >/dev/null)
  mkdir -p "$tmp/rt" "$tmp/hd" "$ort/lib" "$ort/include"
  tar -xzf "$tmp"/onnxruntime-node-1.30.0.tgz -C "$tmp/rt"
  tar -xzf "$tmp"/com.github.asus4.onnxruntime-0.4.9.tgz -C "$tmp/hd"
  cp "$tmp/rt/package/bin/napi-v6/linux/x64/libonnxruntime.so.1" "$ort/lib/"
  ln -sf libonnxruntime.so.1 "$ort/lib/libonnxruntime.so"
  cp "$tmp/hd/package/Plugins/iOS~/onnxruntime.xcframework/ios-arm64_x86_64-simulator/onnxruntime.framework/Headers/"*.h "$ort/include/"
fi
echo "[setup] ready: ONNX Runtime in $ort"
