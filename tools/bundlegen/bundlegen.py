#!/usr/bin/python3
"""Writes small, deterministic bundles and director graphs for tests and examples.

Run with Debian's /usr/bin/python3 (python3-onnx, python3-numpy).

  bundlegen.py --out DIR            the whole fixture set the tests use
  bundlegen.py bundle --out DIR     one bundle (options below)
  bundlegen.py demo --out DIR       the demo identity, a drawn face that speaks (demogen.py)

Every member can be written under its legacy or its canonical name. The test
director computes its crop from all of its inputs, in a way a test can redo
independently:

  t      = mean over keypoint rows of (kp_driving - kp_source)        [B, 3]
  grid   = base grid of the crop (align_corners=0) + 0.5 * t[:, :2]
  rgb    = GridSample(P_rgb, grid, bilinear, zeros, align_corners=0)
           + mean(pooled64) * (0.5, -0.25, 1.0)[channel]
           + 0.1 * t[:, channel]

The FeatSynth director replaces the GridSample term with a (64 / crop) average
pool of the first three channels of fs_red.
"""
import argparse
import json
import os
import subprocess
import sys
import wave

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

import a2xgen
import demogen
import livegen
import motiongen

OPSET = 16
POOL_W = np.array([0.5, -0.25, 1.0], dtype=np.float32)

LEGACY_TO_CANONICAL = {
    "P.f16": "source_frames.f16",
    "P_hevc.mov": "source_frames.hevc",
    "M.f32": "paste_transform.f32",
    "mask_512.u8": "paste_mask.u8",
    "pooled64.f16": "pooled_features.f16",
    "fs_red.f16": "feature_synth.f16",
    "xs_target.bin": "target_keypoints.bin",
    "drive/xs.f32": "idle_loop/source_keypoints.f32",
    "drive/xd.f32": "idle_loop/driven_keypoints.f32",
    "drive/si.i32": "idle_loop/source_index.i32",
}


def member_name(name, canonical):
    if not canonical:
        return name
    if name in LEGACY_TO_CANONICAL:
        return LEGACY_TO_CANONICAL[name]
    if name.startswith("model_b") and name.endswith(".onnx"):
        mid = name[len("model_b"):-len(".onnx")]
        batch, _, suffix = mid.partition("_")
        return "render_model.batch" + batch + ("." + suffix if suffix else "") + ".onnx"
    return name


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def base_grid(crop):
    # Normalised pixel centres for align_corners=0: x = (2i + 1) / crop - 1.
    c = (2.0 * np.arange(crop, dtype=np.float64) + 1.0) / crop - 1.0
    gx = np.broadcast_to(c[None, :], (crop, crop))
    gy = np.broadcast_to(c[:, None], (crop, crop))
    return np.stack([gx, gy], axis=-1).astype(np.float32)[None]  # [1, crop, crop, 2]


def kp_term_nodes(kd, ks, batch_dim):
    """t = mean over rows of (kd - ks): nodes giving 't' [B,3]."""
    return [
        helper.make_node("Sub", [kd, ks], ["delta"]),
        helper.make_node("ReduceMean", ["delta"], ["t"], axes=[1], keepdims=0),
    ]


def pooled_term_nodes(pooled):
    return [
        helper.make_node("ReduceMean", [pooled], ["pm"], axes=[1, 2, 3], keepdims=1),  # [B,1,1,1]
        helper.make_node("Mul", ["pm", "pool_w"], ["pterm"]),                          # [B,3,1,1]
        helper.make_node("Reshape", ["t", "shape_b311"], ["t4"]),
        helper.make_node("Mul", ["t4", "tenth"], ["kterm"]),
        helper.make_node("Add", ["pterm", "kterm"], ["bias"]),
    ]


def common_inits():
    return [
        numpy_helper.from_array(POOL_W.reshape(1, 3, 1, 1), "pool_w"),
        numpy_helper.from_array(np.array([-1, 3, 1, 1], dtype=np.int64), "shape_b311"),
        numpy_helper.from_array(np.array(0.1, dtype=np.float32), "tenth"),
    ]


def plain_director(crop, batch, rows, batch_name="pooled64"):
    """batch: int or a string for a dynamic dimension; rows likewise."""
    inputs = [
        helper.make_tensor_value_info(batch_name, TensorProto.FLOAT, [batch, 64, 32, 32]),
        helper.make_tensor_value_info("P_rgb", TensorProto.FLOAT, [batch, 3, crop, crop]),
        helper.make_tensor_value_info("kp_driving", TensorProto.FLOAT, [batch, rows, 3]),
        helper.make_tensor_value_info("kp_source", TensorProto.FLOAT, [batch, rows, 3]),
    ]
    out = helper.make_tensor_value_info("rgb", TensorProto.FLOAT, [batch, 3, crop, crop])
    inits = common_inits() + [
        numpy_helper.from_array(base_grid(crop), "base_grid"),
        numpy_helper.from_array(np.array([0], dtype=np.int64), "s0"),
        numpy_helper.from_array(np.array([2], dtype=np.int64), "s2"),
        numpy_helper.from_array(np.array([1], dtype=np.int64), "ax1"),
        numpy_helper.from_array(np.array([-1, 1, 1, 2], dtype=np.int64), "shape_b112"),
        numpy_helper.from_array(np.array(0.5, dtype=np.float32), "half"),
    ]
    nodes = kp_term_nodes("kp_driving", "kp_source", batch)
    nodes += [
        helper.make_node("Slice", ["t", "s0", "s2", "ax1"], ["txy"]),
        helper.make_node("Reshape", ["txy", "shape_b112"], ["txy4"]),
        helper.make_node("Mul", ["txy4", "half"], ["shift"]),
        helper.make_node("Add", ["base_grid", "shift"], ["grid"]),
        helper.make_node("GridSample", ["P_rgb", "grid"], ["warped"], mode="bilinear",
                         padding_mode="zeros", align_corners=0),
    ]
    nodes += pooled_term_nodes(batch_name)
    nodes += [helper.make_node("Add", ["warped", "bias"], ["rgb"])]
    graph = helper.make_graph(nodes, "test_director", inputs, [out], initializer=inits)
    return finish(graph)


def featsynth_director(crop, batch, rows):
    if 64 % crop:
        raise SystemExit("featsynth director needs a crop that divides 64")
    k = 64 // crop
    inputs = [
        helper.make_tensor_value_info("fs_red", TensorProto.FLOAT, [batch, 64, 64, 64]),
        helper.make_tensor_value_info("pooled", TensorProto.FLOAT, [batch, 64, 32, 32]),
        helper.make_tensor_value_info("kd", TensorProto.FLOAT, [batch, rows, 3]),
        helper.make_tensor_value_info("ks", TensorProto.FLOAT, [batch, rows, 3]),
    ]
    out = helper.make_tensor_value_info("rgb", TensorProto.FLOAT, [batch, 3, crop, crop])
    inits = common_inits() + [
        numpy_helper.from_array(np.array([0], dtype=np.int64), "s0"),
        numpy_helper.from_array(np.array([3], dtype=np.int64), "s3"),
        numpy_helper.from_array(np.array([1], dtype=np.int64), "ax1"),
    ]
    nodes = kp_term_nodes("kd", "ks", batch)
    nodes += [
        helper.make_node("Slice", ["fs_red", "s0", "s3", "ax1"], ["f3"]),
        helper.make_node("AveragePool", ["f3"], ["fpool"], kernel_shape=[k, k], strides=[k, k]),
    ]
    nodes += pooled_term_nodes("pooled")
    nodes += [helper.make_node("Add", ["fpool", "bias"], ["rgb"])]
    graph = helper.make_graph(nodes, "test_featsynth", inputs, [out], initializer=inits)
    return finish(graph)


def finish(graph):
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)],
                              producer_name="bundlegen")
    model.ir_version = 8
    onnx.checker.check_model(model)
    return model.SerializeToString()


def f16(a):
    return np.asarray(a, dtype=np.float16).tobytes()


def paste_mask(crop):
    """The paste mask: a soft-edged disc, 255 inside, a linear ramp to 0 before the corners."""
    c = (crop - 1) / 2.0
    y, x = np.mgrid[0:crop, 0:crop].astype(np.float64)
    r, ramp = 0.4 * crop, max(2.0, 0.15 * crop)
    return np.clip(np.rint(255.0 * (r + ramp - np.hypot(x - c, y - c)) / ramp), 0, 255).astype(np.uint8)


def write_driver_jpgs(out, nt, W, H):
    """The driver video as target_frames/frame_%06d.jpg, one frame per source frame."""
    os.makedirs(os.path.join(out, "target_frames"), exist_ok=True)
    ffmpeg_encode(os.path.join(out, "target_frames", "frame_%06d.jpg"), driver_rgb(nt, W, H).tobytes(), (W, H),
                  "rgb24", ["-c:v", "mjpeg", "-q:v", "1", "-pix_fmt", "yuvj444p", "-start_number", "0"])


def make_bundle(out, *, nt=3, crop=16, W=40, H=32, frames=5, seed=1, prior="P", canonical=False,
                models=None, msrc=None, manifest_extra=None):
    """prior: 'P' (P.f16), 'fs' (fs_red.f16 only), 'both'."""
    rng = np.random.RandomState(seed)
    os.makedirs(out, exist_ok=True)
    m = lambda name: os.path.join(out, member_name(name, canonical))

    write(m("pooled64.f16"), f16(rng.uniform(-1, 1, size=(nt, 64, 32, 32))))
    if prior in ("P", "both"):
        write(m("P.f16"), f16(rng.uniform(0, 1, size=(nt, 3, crop, crop))))
    if prior in ("fs", "both"):
        write(m("fs_red.f16"), f16(rng.uniform(-1, 1, size=(nt, 64, 64, 64))))
    mats = np.zeros((nt, 6), dtype=np.float32)
    for i in range(nt):
        mats[i] = [0.9 + 0.01 * i, 0.05, 3.0 + i, -0.05, 0.9, 2.0 + 0.5 * i]
    write(m("M.f32"), mats.tobytes())
    xs = rng.uniform(-0.3, 0.3, size=(frames, 21, 3)).astype(np.float32)
    xd = (xs + rng.uniform(-0.2, 0.2, size=(frames, 21, 3))).astype(np.float32)
    si = (np.arange(frames) % nt).astype(np.int32)
    write(m("drive/xs.f32"), xs.tobytes())
    write(m("drive/xd.f32"), xd.tobytes())
    write(m("drive/si.i32"), si.tobytes())

    for name, data in (models or {}).items():
        write(m(name), data)

    # What the paste needs: its mask (crop*crop bytes, whatever the crop) and a driver video.
    write(m("mask_512.u8"), paste_mask(crop).tobytes())
    write_driver_jpgs(out, nt, W, H)

    sw, sh = msrc if msrc else (W, H)
    manifest = {"format": "xj-bundle-v0", "agent": "bundlegen-%d" % seed, "NT": nt, "H": H, "W": W,
                "crop": crop, "amount": 1.3, "sigma": 2.0, "ksize": 13, "frames": frames,
                "M_src_w": sw, "M_src_h": sh}
    manifest.update(manifest_extra or {})
    write(os.path.join(out, "manifest.json"), json.dumps(manifest, indent=1).encode())


def fixture_set(out):
    crop = 16
    plain = {
        "model_b1.onnx": plain_director(crop, 1, 21),
        "model_b4.onnx": plain_director(crop, 4, 21),
        "model_dyn.onnx": plain_director(crop, 1, "rows"),
        "model_r20.onnx": plain_director(crop, 1, 20),
        "model_r22.onnx": plain_director(crop, 1, 22),
        "model_nobatch.onnx": plain_director(crop, 1, 21, batch_name="pooled_x"),
        "model_dynbatch.onnx": plain_director(crop, "batch", 21),
    }
    feat = {
        "model_fs1.onnx": featsynth_director(crop, 1, 21),
        "model_fs4.onnx": featsynth_director(crop, 4, 21),
        "model_b1.onnx": plain["model_b1.onnx"],
    }
    make_bundle(os.path.join(out, "basic"), crop=crop, models=plain)
    make_bundle(os.path.join(out, "canonical"), crop=crop, canonical=True, models=plain)
    make_bundle(os.path.join(out, "featsynth"), crop=crop, prior="fs", seed=2, models=feat)
    make_bundle(os.path.join(out, "rescaled"), crop=crop, msrc=(20, 32),
                models={"model_b1.onnx": plain["model_b1.onnx"]})
    video_fixtures(out, plain)
    a2xgen.a2x_fixtures(out)
    livegen.live_fixtures(out)
    motiongen.motion_fixtures(out)


# ---- video members: written with the ffmpeg command, losslessly ------------------
#
# Lossless encodings decode to exactly the planes written, so a test can compute
# the expected frame from the raw planes kept beside the video.

def ffmpeg_encode(path, raw, size, in_fmt, codec_args):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    cmd = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y",
           "-f", "rawvideo", "-pix_fmt", in_fmt, "-s", "%dx%d" % size, "-r", "25", "-i", "-"]
    subprocess.run(cmd + codec_args + [path], input=raw, check=True)


def h264_lossless(pix_fmt):
    return ["-c:v", "libx264", "-qp", "0", "-pix_fmt", pix_fmt]


def hevc_lossless(pix_fmt):
    # Without B-frames: with them this x265 and FFmpeg's decoder disagree on
    # some pictures of a lossless stream.
    return ["-c:v", "libx265", "-x265-params", "lossless=1:bframes=0:log-level=error", "-pix_fmt", pix_fmt,
            "-tag:v", "hvc1"]


def random_planes(rng, n, w, h, chroma):
    """n frames of planar YUV bytes; chroma 420, 422 or 444. Full byte range, so
    the conversion's clamps are exercised."""
    cw = w if chroma == 444 else (w + 1) // 2
    ch = h if chroma in (444, 422) else (h + 1) // 2
    out = []
    for _ in range(n):
        out.append(rng.randint(0, 256, size=w * h, dtype=np.uint8).tobytes())
        out.append(rng.randint(0, 256, size=2 * cw * ch, dtype=np.uint8).tobytes())
    return b"".join(out)


def driver_rgb(n, w, h):
    """Smooth frames with a colour of their own, which survive JPEG closely."""
    x = np.arange(w, dtype=np.int32)[None, :]
    y = np.arange(h, dtype=np.int32)[:, None]
    frames = []
    for k in range(n):
        r = np.broadcast_to(40 + 50 * k + x, (h, w))
        g = np.broadcast_to(200 - 40 * k + y, (h, w))
        b = np.broadcast_to(np.full((h, 1), 60 + 30 * k), (h, w))
        frames.append(np.clip(np.stack([r, g, b], axis=-1), 0, 255).astype(np.uint8))
    return np.stack(frames)


def rgb_to_yuv420p(rgb):
    """Limited-range BT.601 forward transform, chroma averaged over 2x2."""
    f = rgb.astype(np.float64)
    r, g, b = f[..., 0], f[..., 1], f[..., 2]
    y = 16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255
    u = 128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255
    v = 128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255
    sub = lambda p: p.reshape(p.shape[0], p.shape[1] // 2, 2, p.shape[2] // 2, 2).mean(axis=(2, 4))
    q = lambda p: np.clip(np.rint(p), 0, 255).astype(np.uint8)
    yq, uq, vq = q(y), q(sub(u)), q(sub(v))
    return b"".join(yq[i].tobytes() + uq[i].tobytes() + vq[i].tobytes() for i in range(rgb.shape[0]))


def write_bundle_videos(out, src, *, nt, W, H, crop, seed):
    """A bundle's driver as target_frames/ JPEGs and target_frames.mp4 (H.264
    yuv420p), and its warp prior as P_hevc.mov (HEVC yuv444p). The inputs go
    to src: canvas.rgb (the JPEGs' pixels), canvas.yuv, prior.yuv."""
    rng = np.random.RandomState(seed)
    rgb = driver_rgb(nt, W, H)
    canvas = rgb_to_yuv420p(rgb)
    prior = random_planes(rng, nt, crop, crop, 444)
    write(os.path.join(src, "canvas.rgb"), rgb.tobytes())
    write(os.path.join(src, "canvas.yuv"), canvas)
    write(os.path.join(src, "prior.yuv"), prior)
    os.makedirs(os.path.join(out, "target_frames"), exist_ok=True)
    ffmpeg_encode(os.path.join(out, "target_frames", "frame_%06d.jpg"), rgb.tobytes(), (W, H), "rgb24",
                  ["-c:v", "mjpeg", "-q:v", "1", "-pix_fmt", "yuvj444p", "-start_number", "0"])
    ffmpeg_encode(os.path.join(out, "target_frames.mp4"), canvas, (W, H), "yuv420p", h264_lossless("yuv420p"))
    ffmpeg_encode(os.path.join(out, "P_hevc.mov"), prior, (crop, crop), "yuv444p", hevc_lossless("yuv444p"))


def write_clips(out, seed=7):
    """Loose video members for the frame-source tests, with their raw planes."""
    rng = np.random.RandomState(seed)
    canvas = random_planes(rng, 20, 32, 24, 420)
    frame420 = 32 * 24 * 3 // 2
    write(os.path.join(out, "h264_420.yuv"), canvas)
    ffmpeg_encode(os.path.join(out, "h264_420.mp4"), canvas, (32, 24), "yuv420p", h264_lossless("yuv420p"))
    ffmpeg_encode(os.path.join(out, "hevc_420.mp4"), canvas, (32, 24), "yuv420p", hevc_lossless("yuv420p"))
    # Matroska states no frame count: one frame short of the 20 above.
    ffmpeg_encode(os.path.join(out, "short.mkv"), canvas[:19 * frame420], (32, 24), "yuv420p",
                  h264_lossless("yuv420p"))
    ffmpeg_encode(os.path.join(out, "h264_422.mp4"), random_planes(rng, 2, 32, 24, 422), (32, 24), "yuv422p",
                  h264_lossless("yuv422p"))
    prior = random_planes(rng, 12, 16, 16, 444)
    write(os.path.join(out, "prior_444.yuv"), prior)
    ffmpeg_encode(os.path.join(out, "prior_444.mov"), prior, (16, 16), "yuv444p", hevc_lossless("yuv444p"))
    ffmpeg_encode(os.path.join(out, "prior_420.mov"), random_planes(rng, 3, 16, 16, 420), (16, 16), "yuv420p",
                  hevc_lossless("yuv420p"))
    with wave.open(os.path.join(out, "audio.wav"), "wb") as wav:
        wav.setnchannels(1)
        wav.setsampwidth(2)
        wav.setframerate(16000)
        wav.writeframes(np.zeros(1600, dtype=np.int16).tobytes())


def video_fixtures(out, plain):
    """'video': a bundle whose warp prior and driver are video members only."""
    crop, nt = 16, 3
    bundle = os.path.join(out, "video")
    make_bundle(bundle, nt=nt, crop=crop, prior="none", seed=5,
                models={"model_b1.onnx": plain["model_b1.onnx"], "model_b4.onnx": plain["model_b4.onnx"]},
                manifest_extra={"P_hevc": "P_hevc.mov"})
    write_bundle_videos(bundle, os.path.join(out, "video_src"), nt=nt, W=40, H=32, crop=crop, seed=5)
    write_clips(os.path.join(out, "clips"))


def main(argv):
    if argv[:1] == ["demo"]:  # the demo identity has sizes of its own
        return demogen.main(argv[1:])
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("what", nargs="?", default="fixtures", choices=["fixtures", "bundle", "live"])
    ap.add_argument("--out", required=True)
    ap.add_argument("--canonical", action="store_true", help="members under their canonical names")
    ap.add_argument("--nt", type=int, default=3)
    ap.add_argument("--crop", type=int, default=16)
    ap.add_argument("--width", type=int, default=40)
    ap.add_argument("--height", type=int, default=32)
    ap.add_argument("--frames", type=int, default=5)
    ap.add_argument("--seed", type=int, default=1)
    a = ap.parse_args(argv)
    if a.what == "fixtures":
        fixture_set(a.out)
    elif a.what == "live":
        livegen.live_bundle(a.out, crop=a.crop, W=a.width, H=a.height, nt=a.nt)
    else:
        make_bundle(a.out, nt=a.nt, crop=a.crop, W=a.width, H=a.height, frames=a.frames, seed=a.seed,
                    canonical=a.canonical,
                    models={"model_b1.onnx": plain_director(a.crop, 1, 21),
                            "model_b4.onnx": plain_director(a.crop, 4, 21)})
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
