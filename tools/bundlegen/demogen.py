"""The demo identity: a drawn face that speaks, built entirely from code.

  bundlegen.py demo --out DIR [--width 1280 --height 720 --crop 512 --nt 25]

writes DIR/bundle (a complete bundle with its audio models and speech
encoders) and DIR/motion (a motion directory with motiongen's graphs, for a
session that asks for the motion model; its motion does not follow the
loudness). Nothing of it is a photograph or a trained network: the face is
painted from signed distances, and every graph of the bundle is arithmetic
chosen so that loud speech opens the mouth and silence leaves it shut.

How the pieces agree:

  - The warp prior P is the scene seen through the crop square; the paste
    matrix of frame i puts that square back where the head stands on frame i
    of the driver video, so the head sways with the driver and the crop needs
    no motion of its own.
  - The director opens the mouth by the driven minus the source y of keypoint
    row MOUTH_ROW: a GridSample whose flow stretches the dark line between the
    lips into an opening and pushes the lower lip and chin down. Nothing else
    moves, so a rest pose renders P itself.
  - The speech encoders give, for every layer and dimension of a frame, the
    RMS of that frame's (window-normalised) audio. The band encoder averages
    it into the context; the decoder maps it to tanh(GAIN * rms) on the mouth
    coordinate and 0 everywhere else. A window of silence is exact zeros all
    the way; a pause inside speech comes out within a few thousandths of 0.
  - fca_stream.onnx sees the frame minus a running baseline; its state keeps
    the deepest dip below that baseline so far, which puts a pause back at
    zero opening.
"""
import json
import os

import numpy as np
from onnx import TensorProto, helper

import a2xgen
import motiongen

MOUTH_ROW = 19                 # keypoint row whose y opens the mouth
MOUTH_INDEX = MOUTH_ROW * 3 + 1
GAIN = 0.5                     # rms -> tanh(GAIN * rms): the model's mouth delta
OPEN_DOWN = 0.12               # lower lip travel at delta 1, in grid units (2 = the crop)
OPEN_UP = 0.035                # upper lip travel at delta 1
MOUTH_V = 0.685                # the lip line, as a fraction of the crop from the top
MOUTH_HALF_W = 0.095           # half the mouth's width, fraction of the crop
REACH_NEAR, REACH_FAR = 0.14, 0.34  # full shift up to NEAR from the line, none from FAR (grid units)
CTX_H = 16                       # context width of the a2x models


def _vi(name, shape, t=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, t, shape)


# ---- the painting ---------------------------------------------------------------


def _fill(img, alpha, colour):
    """Lays a colour over img (premultiplied RGBA) with coverage alpha."""
    a = alpha[..., None]
    img *= 1.0 - a
    img += a * np.asarray(tuple(colour) + (1.0,), dtype=np.float32)


def _edge(sdf, px):
    """Coverage of a shape from its signed distance (negative inside), one pixel soft."""
    return np.clip(0.5 - sdf / px, 0.0, 1.0).astype(np.float32)


def _ellipse(u, v, cx, cy, rx, ry):
    """Approximate signed distance to an ellipse, in the units of u and v."""
    d = np.sqrt(((u - cx) / rx) ** 2 + ((v - cy) / ry) ** 2)
    return (d - 1.0) * min(rx, ry)


def paint_person(u, v, px, blink):
    """The head, neck and shoulders as premultiplied RGBA at head coordinates
    u, v (the crop square is [0,1]^2); px is one pixel in those units."""
    img = np.zeros(u.shape + (4,), np.float32)
    skin, shade = (0.93, 0.76, 0.62), (0.80, 0.60, 0.48)
    # Neck and shoulders.
    _fill(img, _edge(np.maximum(np.abs(u - 0.5) - 0.1, v - 1.1), px) * (v > 0.7), shade)
    _fill(img, _edge(_ellipse(u, v, 0.5, 1.36, 0.62, 0.36), px), (0.20, 0.34, 0.55))
    _fill(img, _edge(np.maximum(_ellipse(u, v, 0.5, 1.0, 0.11, 0.05), v - 1.0), px), shade)
    # Ears, head with a soft shade towards its rim, hair.
    for cx in (0.2, 0.8):
        _fill(img, _edge(_ellipse(u, v, cx, 0.50, 0.045, 0.08), px), shade)
    head = _ellipse(u, v, 0.5, 0.47, 0.30, 0.40)
    _fill(img, _edge(head, px), skin)
    rim = np.clip(1.0 + head / 0.06, 0.0, 1.0) * (head < 0)
    _fill(img, (0.35 * rim ** 2).astype(np.float32), shade)
    line = 0.19 + 0.22 * ((u - 0.5) / 0.3) ** 2
    hair = np.maximum(_ellipse(u, v, 0.5, 0.36, 0.33, 0.31), v - line)
    _fill(img, _edge(hair, px), (0.28, 0.17, 0.10))
    # Cheeks.
    for cx in (0.33, 0.67):
        d = np.sqrt((u - cx) ** 2 + ((v - 0.62) * 1.3) ** 2)
        _fill(img, (0.25 * np.clip(1.0 - d / 0.07, 0.0, 1.0)).astype(np.float32), (0.95, 0.55, 0.55))
    # Eyes: white, iris, pupil, glint, then the lid closing from above.
    for cx in (0.39, 0.61):
        eye = _ellipse(u, v, cx, 0.45, 0.055, 0.033)
        inside = _edge(eye, px)
        _fill(img, inside, (0.98, 0.98, 0.97))
        _fill(img, _edge(_ellipse(u, v, cx, 0.452, 0.024, 0.024), px) * inside, (0.25, 0.45, 0.30))
        _fill(img, _edge(_ellipse(u, v, cx, 0.452, 0.011, 0.011), px) * inside, (0.05, 0.05, 0.06))
        _fill(img, _edge(_ellipse(u, v, cx + 0.008, 0.444, 0.005, 0.005), px) * inside, (1.0, 1.0, 1.0))
        lid = 0.45 - 0.036 + 2 * 0.036 * blink
        _fill(img, _edge(v - lid, px) * _edge(eye - 0.004, px), skin)
        if blink > 0:
            _fill(img, _edge(np.abs(v - lid) - 0.003, px) * inside, (0.35, 0.22, 0.18))
        _fill(img, _edge(np.abs(eye) - 0.002, px) * (v < 0.45), (0.20, 0.12, 0.10))
        brow = np.maximum(np.abs(v - (0.385 + 4.0 * (u - cx) ** 2)) - 0.007, np.abs(u - cx) - 0.06)
        _fill(img, _edge(brow, px), (0.28, 0.17, 0.10))
    # Nose.
    _fill(img, _edge(_ellipse(u, v, 0.5, 0.585, 0.035, 0.02), px) * 0.35, shade)
    _fill(img, _edge(np.maximum(np.abs(u - 0.5) - 0.004, np.abs(v - 0.53) - 0.04), px) * 0.25, shade)
    # Lips, and the dark line between them that the director widens into an opening.
    w = np.sqrt(np.clip(1.0 - ((u - 0.5) / MOUTH_HALF_W) ** 2, 0.0, 1.0))
    upper = np.maximum(-(v - (MOUTH_V - 0.026 * w - 0.006 * np.cos((u - 0.5) * 60) * w)), v - MOUTH_V)
    lower = np.maximum(v - (MOUTH_V + 0.032 * w), -(v - MOUTH_V))
    inside = np.abs(u - 0.5) < MOUTH_HALF_W
    _fill(img, _edge(upper, px) * inside, (0.72, 0.30, 0.32))
    _fill(img, _edge(lower, px) * inside, (0.80, 0.36, 0.38))
    _fill(img, _edge(np.abs(v - MOUTH_V) - 0.004 * w, px) * inside, (0.22, 0.05, 0.07))
    return img


def over(layer, bg):
    return layer[..., :3] + (1.0 - layer[..., 3:]) * bg


def paint_background(X, Y, W, H):
    g = (Y / H).astype(np.float32)
    img = np.stack([0.55 + 0.20 * g, 0.68 + 0.10 * g, 0.78 - 0.05 * g], axis=-1).astype(np.float32)
    r = np.sqrt(((X - W / 2) / W) ** 2 + ((Y - H / 2) / H) ** 2)
    img *= (1.0 - 0.35 * r ** 2)[..., None]
    return img


def idle_life(nt, C):
    """Per frame: the head's offset (dx, dy) in whole canvas pixels, and the eyelid closure."""
    k = np.arange(nt)
    dx = np.rint(0.006 * C * np.sin(2 * np.pi * k / nt)).astype(int)
    dy = np.rint(0.002 * C * np.sin(4 * np.pi * k / nt)).astype(int)
    blink = np.zeros(nt)
    at = int(0.45 * nt)
    for j, b in enumerate((0.5, 1.0, 1.0, 0.5)):
        if at + j < nt:
            blink[at + j] = b
    return dx, dy, blink


def paint_frames(W, H, crop, nt):
    """Driver frames [nt,H,W,3] bytes, warp prior [nt,3,crop,crop] floats and
    the paste matrices [nt,6]. The person is painted once per eyelid state and
    moved by whole pixels, so the crop square always holds the head in place."""
    C = round(0.71 * H)                           # the crop square on the canvas, in pixels
    s = C / crop
    ox, oy = int((W - C) // 2), int(H - C - round(0.12 * H))   # its top left corner at rest
    dx, dy, blink = idle_life(nt, C)
    Y, X = np.mgrid[0:H, 0:W].astype(np.float32) + 0.5
    bg = paint_background(X, Y, W, H)
    c = (np.arange(crop, dtype=np.float32) + 0.5) / crop
    cv, cu = np.meshgrid(c, c, indexing="ij")
    # The person layer on the canvas at rest, over a region with room for the sway.
    m = int(np.abs(dx).max() + np.abs(dy).max() + 1)
    x0, x1, y0 = max(0, ox - C // 3), min(W, ox + C + C // 3), max(0, oy - m)
    Xr, Yr = X[y0:, x0:x1], Y[y0:, x0:x1]
    canvas_layer, crop_layer = {}, {}
    for b in sorted(set(blink.tolist())):
        canvas_layer[b] = paint_person((Xr - ox) / C, (Yr - oy) / C, 1.0 / C, b)
        crop_layer[b] = paint_person(cu, cv, 1.0 / crop, b)
    driver = np.empty((nt, H, W, 3), np.uint8)
    prior = np.empty((nt, 3, crop, crop), np.float32)
    mats = np.empty((nt, 6), np.float32)
    for i in range(nt):
        tx, ty = ox + dx[i], oy + dy[i]
        layer = np.zeros((H, W, 4), np.float32)
        ya, xa = y0 + dy[i], x0 + dx[i]
        sy = slice(max(0, ya), min(H, ya + Yr.shape[0]))
        sx = slice(max(0, xa), min(W, xa + Xr.shape[1]))
        layer[sy, sx] = canvas_layer[blink[i]][sy.start - ya:sy.stop - ya, sx.start - xa:sx.stop - xa]
        driver[i] = np.clip(np.rint(over(layer, bg) * 255.0), 0, 255).astype(np.uint8)
        # The crop square of this frame: the same scene, the head fixed within it.
        crop_bg = paint_background(tx + cu * C, ty + cv * C, W, H)
        prior[i] = np.clip(over(crop_layer[blink[i]], crop_bg), 0.0, 1.0).transpose(2, 0, 1)
        # Crop pixel (x, y) to canvas pixel: centres map to centres.
        mats[i] = [s, 0.0, tx + 0.5 * s - 0.5, 0.0, s, ty + 0.5 * s - 0.5]
    return driver, prior, mats, (dx / C, dy / C)


def face_mask(crop):
    """The paste mask: the head's ellipse, with a soft rim inside the hair line."""
    c = (np.arange(crop) + 0.5) / crop
    v, u = np.meshgrid(c, c, indexing="ij")
    d = np.sqrt(((u - 0.5) / 0.27) ** 2 + ((v - 0.52) / 0.36) ** 2)
    return np.clip(np.rint(255.0 * (1.0 - d) / 0.15), 0, 255).astype(np.uint8)


def keypoints(nt, dx, dy):
    """Resting keypoints per source frame: a fixed layout moving with the head."""
    rng = np.random.RandomState(5)
    base = np.concatenate([rng.uniform(-0.4, 0.4, (21, 2)), rng.uniform(-0.1, 0.1, (21, 1))], axis=1)
    base[MOUTH_ROW] = [0.0, 2 * MOUTH_V - 1, 0.0]
    rows = np.repeat(base[None], nt, axis=0)
    rows[:, :, 0] += 2 * dx[:, None]
    rows[:, :, 1] += 2 * dy[:, None]
    return rows.reshape(nt, 63).astype(np.float32)


# ---- the director -----------------------------------------------------------------


def mouth_patch(crop):
    """Rows and columns [r0, r1) x [c0, c1) of the crop that the warp can move."""
    span = REACH_FAR / 2 + 2.0 / crop
    r0, r1 = int(np.floor((MOUTH_V - span) * crop)), int(np.ceil((MOUTH_V + span) * crop))
    c0, c1 = int(np.floor((0.5 - MOUTH_HALF_W) * crop)) - 1, int(np.ceil((0.5 + MOUTH_HALF_W) * crop)) + 1
    return max(0, r0), min(crop, r1), max(0, c0), min(crop, c1)


def director(crop, batch):
    """P_rgb with the mouth patch replaced by its warp: only that patch is sampled."""
    r0, r1, c0, c1 = mouth_patch(crop)
    c = (2.0 * np.arange(crop, dtype=np.float32) + 1.0) / crop - 1.0      # pixel centres, align_corners=0
    cy, cx = c[r0:r1], c[c0:c1]
    t = cy - (2 * MOUTH_V - 1)                                            # rows: from the lip line
    w = np.sqrt(np.clip(1.0 - (((cx + 1) / 2 - 0.5) / MOUTH_HALF_W) ** 2, 0.0, 1.0))  # columns: the mouth's width
    fall = np.clip(1.0 - (np.abs(t) - REACH_NEAR) / (REACH_FAR - REACH_NEAR), 0.0, 1.0)
    row = lambda a: np.asarray(a, np.float32).reshape(1, -1, 1, 1)
    col = lambda a: np.asarray(a, np.float32).reshape(1, 1, -1, 1)
    i64 = lambda *v: np.array(v, np.int64)
    inits = [
        a2xgen._c("gx", col(cx)), a2xgen._c("gy", row(cy)), a2xgen._c("t", row(t)), a2xgen._c("fall", row(fall)),
        a2xgen._c("lo_w", col(-OPEN_UP * w)), a2xgen._c("hi_w", col(OPEN_DOWN * w)),
        a2xgen._c("starts", i64(MOUTH_ROW, 1)), a2xgen._c("ends", i64(MOUTH_ROW + 1, 2)), a2xgen._c("axes", i64(1, 2)),
        a2xgen._c("shape4", i64(-1, 1, 1, 1)), a2xgen._c("zero", np.float32(0.0)), a2xgen._c("most", np.float32(1.5)),
        a2xgen._c("p_starts", i64(r0, c0)), a2xgen._c("p_ends", i64(r1, c1)), a2xgen._c("p_axes", i64(2, 3)),
        a2xgen._c("pads", i64(0, 0, r0, c0, 0, 0, crop - r1, crop - c1)),
    ]
    nodes = [
        helper.make_node("Sub", ["kp_driving", "kp_source"], ["d"]),
        helper.make_node("Slice", ["d", "starts", "ends", "axes"], ["dm"]),            # [B,1,1]
        helper.make_node("Clip", ["dm", "zero", "most"], ["open"]),
        helper.make_node("Reshape", ["open", "shape4"], ["o"]),                         # [B,1,1,1]
        helper.make_node("Mul", ["o", "lo_w"], ["lo"]),                                 # [B,1,pw,1]
        helper.make_node("Mul", ["o", "hi_w"], ["hi"]),
        helper.make_node("Max", ["t", "lo"], ["c1"]),                                   # [B,ph,pw,1]
        helper.make_node("Min", ["c1", "hi"], ["c2"]),
        helper.make_node("Mul", ["c2", "fall"], ["shift"]),
        helper.make_node("Sub", ["gy", "shift"], ["sy"]),                               # sample rows
        helper.make_node("Mul", ["sy", "zero"], ["sz"]),
        helper.make_node("Add", ["sz", "gx"], ["sx"]),                                  # columns as they are
        helper.make_node("Concat", ["sx", "sy"], ["grid"], axis=3),
        helper.make_node("GridSample", ["P_rgb", "grid"], ["warped"], mode="bilinear", padding_mode="border",
                         align_corners=0),                                              # [B,3,ph,pw]
        helper.make_node("Slice", ["P_rgb", "p_starts", "p_ends", "p_axes"], ["still"]),
        helper.make_node("Sub", ["warped", "still"], ["moved"]),
        helper.make_node("Pad", ["moved", "pads"], ["moved_full"]),
        # The pooled features play no part in this face; they are bound all the same.
        helper.make_node("ReduceMean", ["pooled64"], ["pm"], axes=[1, 2, 3], keepdims=1),
        helper.make_node("Mul", ["pm", "zero"], ["pz"]),
        helper.make_node("Add", ["moved_full", "pz"], ["moved_b"]),
        helper.make_node("Add", ["P_rgb", "moved_b"], ["rgb"]),
    ]
    inputs = [_vi("pooled64", [batch, 64, 32, 32]), _vi("P_rgb", [batch, 3, crop, crop]),
              _vi("kp_driving", [batch, 21, 3]), _vi("kp_source", [batch, 21, 3])]
    return a2xgen._model(nodes, "demo_director", inputs, [_vi("rgb", [batch, 3, crop, crop])], inits)


# ---- the audio models --------------------------------------------------------------


def _rms_rows(x, frames, per, prefix):
    """RMS of each of `frames` rows of `per` samples of x: nodes giving prefix + 'rms' [frames,1]."""
    return [
        helper.make_node("Reshape", [x, prefix + "shape"], [prefix + "fr"]),
        helper.make_node("Mul", [prefix + "fr", prefix + "fr"], [prefix + "sq"]),
        helper.make_node("ReduceMean", [prefix + "sq"], [prefix + "ms"], axes=[1], keepdims=1),
        helper.make_node("Sqrt", [prefix + "ms"], [prefix + "rms"]),
    ], [a2xgen._c(prefix + "shape", np.array([frames, per], np.int64))]


def encoder8_graph():
    """input_values [1,128000] -> audio_emb [12,200,768]: every value of frame i is its RMS."""
    nodes, inits = _rms_rows("input_values", 200, 640, "w_")
    nodes += [
        helper.make_node("Expand", ["w_rms", "w_eshape"], ["w_e"]),                      # [200,9216]
        helper.make_node("Reshape", ["w_e", "w_fshape"], ["w_f3"]),
        helper.make_node("Transpose", ["w_f3"], ["audio_emb"], perm=[1, 0, 2]),
    ]
    inits += [a2xgen._c("w_eshape", np.array([200, 9216], np.int64)),
              a2xgen._c("w_fshape", np.array([200, 12, 768], np.int64))]
    return a2xgen._model(nodes, "demo_w2v8", [_vi("input_values", [1, 128000])], [_vi("audio_emb", [12, 200, 768])],
                         inits)


def trunk_graph():
    """input_values [1,32000] -> latent float16 [1,640,400]: step k holds the RMS of
    the 640 samples from 80 k on, in every channel."""
    nodes = [
        helper.make_node("Reshape", ["input_values", "t_shape"], ["t_fr"]),              # [1,1,400,80]
        helper.make_node("Mul", ["t_fr", "t_fr"], ["t_sq"]),
        helper.make_node("ReduceMean", ["t_sq"], ["t_ms"], axes=[3], keepdims=1),        # [1,1,400,1]
        helper.make_node("Reshape", ["t_ms", "t_lshape"], ["t_ms3"]),                    # [1,1,400]
        helper.make_node("AveragePool", ["t_ms3"], ["t_win"], kernel_shape=[8], pads=[0, 7],
                         count_include_pad=0),                                           # [1,1,400]
        helper.make_node("Sqrt", ["t_win"], ["t_rms"]),
        helper.make_node("Expand", ["t_rms", "t_eshape"], ["t_lat"]),                    # [1,640,400]
        helper.make_node("Cast", ["t_lat"], ["latent"], to=TensorProto.FLOAT16),
    ]
    inits = [a2xgen._c("t_shape", np.array([1, 1, 400, 80], np.int64)),
             a2xgen._c("t_lshape", np.array([1, 1, 400], np.int64)),
             a2xgen._c("t_eshape", np.array([1, 640, 400], np.int64))]
    return a2xgen._model(nodes, "demo_trunk", [_vi("input_values", [1, 32000])],
                         [_vi("latent", [1, 640, 400], TensorProto.FLOAT16)], inits)


def head_graph():
    """x [8,640] -> emb [8,12,768]: the channel mean in every value."""
    nodes = [
        helper.make_node("ReduceMean", ["x"], ["h_m"], axes=[1], keepdims=1),            # [8,1]
        helper.make_node("Expand", ["h_m", "h_eshape"], ["h_e"]),
        helper.make_node("Reshape", ["h_e", "h_oshape"], ["emb"]),
    ]
    inits = [a2xgen._c("h_eshape", np.array([8, 9216], np.int64)),
             a2xgen._c("h_oshape", np.array([8, 12, 768], np.int64))]
    return a2xgen._model(nodes, "demo_head", [_vi("x", [8, 640])], [_vi("emb", [8, 12, 768])], inits)


def band_encoder_graph():
    """feat [1,T,12,768], pos_window [1,T,h], attn [1,1,T,T] -> ctx [1,T,h]: the
    frame's mean feature in every value; position and mask do not move it."""
    nodes = [
        helper.make_node("ReduceMean", ["feat"], ["b_m"], axes=[2, 3], keepdims=0),     # [1,T]
        helper.make_node("Unsqueeze", ["b_m", "b_ax2"], ["b_m3"]),                       # [1,T,1]
        helper.make_node("Mul", ["pos_window", "b_zero"], ["b_pz"]),
        helper.make_node("Add", ["b_pz", "b_m3"], ["ctx"]),
    ]
    inits = [a2xgen._c("b_ax2", np.array([2], np.int64)), a2xgen._c("b_zero", np.float32(0.0))]
    inputs = [_vi("feat", [1, "T", 12, 768]), _vi("pos_window", [1, "T", CTX_H]), _vi("attn", [1, 1, "T", "T"])]
    # The mask is accepted and left unread: one frame's opening depends on that frame alone.
    return a2xgen._model(nodes, "demo_band_encoder", inputs, [_vi("ctx", [1, "T", CTX_H])], inits)


def decoder_graph():
    """ctx_t [1,h], prev [1,63], h [1,1,h] -> m [1,63] = tanh(GAIN * ctx) on the
    mouth coordinate, 0 elsewhere; h_out = h."""
    onehot = np.zeros((1, 63), np.float32)
    onehot[0, MOUTH_INDEX] = 1.0
    nodes = [
        helper.make_node("Slice", ["ctx_t", "d_s0", "d_s1", "d_ax1"], ["d_c"]),           # [1,1]
        helper.make_node("Mul", ["d_c", "d_gain"], ["d_g"]),
        helper.make_node("Tanh", ["d_g"], ["d_t"]),
        helper.make_node("Mul", ["d_t", "d_onehot"], ["d_m"]),
        helper.make_node("Mul", ["prev", "d_zero"], ["d_pz"]),
        helper.make_node("Add", ["d_m", "d_pz"], ["m"]),
        helper.make_node("Identity", ["h"], ["h_out"]),
    ]
    inits = [a2xgen._c("d_s0", np.array([0], np.int64)), a2xgen._c("d_s1", np.array([1], np.int64)),
             a2xgen._c("d_ax1", np.array([1], np.int64)), a2xgen._c("d_gain", np.float32(GAIN)),
             a2xgen._c("d_onehot", onehot), a2xgen._c("d_zero", np.float32(0.0))]
    inputs = [_vi("ctx_t", [1, CTX_H]), _vi("prev", [1, 63]), _vi("h", [1, 1, CTX_H])]
    return a2xgen._model(nodes, "demo_decoder", inputs, [_vi("m", [1, 63]), _vi("h_out", [1, 1, CTX_H])], inits)


def fca_graph():
    """cond [1,5376], prev [1,63], h [1,1,384] -> m [1,63], hn [1,1,384].

    c is the mean of the current frame's 768 values (the second of the seven
    stacked frames), the RMS above the running baseline. hn[0] keeps the
    largest -c so far, so c + hn[0] is measured from the quietest frame seen."""
    pick = np.zeros((5376, 1), np.float32)
    pick[768:1536, 0] = 1.0 / 768
    onehot = np.zeros((1, 63), np.float32)
    onehot[0, MOUTH_INDEX] = 1.0
    nodes = [
        helper.make_node("MatMul", ["cond", "f_pick"], ["f_c"]),                          # [1,1]
        helper.make_node("Reshape", ["h", "f_hshape"], ["f_h"]),                          # [1,384]
        helper.make_node("Slice", ["f_h", "f_s0", "f_s1", "f_ax1"], ["f_h0"]),            # [1,1]
        helper.make_node("Neg", ["f_c"], ["f_nc"]),
        helper.make_node("Max", ["f_h0", "f_nc"], ["f_dip"]),
        helper.make_node("Add", ["f_c", "f_dip"], ["f_up"]),
        helper.make_node("Relu", ["f_up"], ["f_r"]),
        helper.make_node("Mul", ["f_r", "f_gain"], ["f_g"]),
        helper.make_node("Tanh", ["f_g"], ["f_t"]),
        helper.make_node("Mul", ["f_t", "f_onehot"], ["f_m"]),
        helper.make_node("Mul", ["prev", "f_zero"], ["f_pz"]),
        helper.make_node("Add", ["f_m", "f_pz"], ["m"]),
        helper.make_node("Pad", ["f_dip", "f_pads"], ["f_hn2"]),                          # [1,384]
        helper.make_node("Reshape", ["f_hn2", "f_oshape"], ["hn"]),
    ]
    inits = [a2xgen._c("f_pick", pick), a2xgen._c("f_hshape", np.array([1, 384], np.int64)),
             a2xgen._c("f_s0", np.array([0], np.int64)), a2xgen._c("f_s1", np.array([1], np.int64)),
             a2xgen._c("f_ax1", np.array([1], np.int64)), a2xgen._c("f_gain", np.float32(GAIN)),
             a2xgen._c("f_onehot", onehot), a2xgen._c("f_zero", np.float32(0.0)),
             a2xgen._c("f_pads", np.array([0, 0, 0, 383], np.int64)),
             a2xgen._c("f_oshape", np.array([1, 1, 384], np.int64))]
    inputs = [_vi("cond", [1, 5376]), _vi("prev", [1, 63]), _vi("h", [1, 1, 384])]
    return a2xgen._model(nodes, "demo_fca_stream", inputs, [_vi("m", [1, 63]), _vi("hn", [1, 1, 384])], inits)


# ---- the bundle ---------------------------------------------------------------------


def make_demo(out, *, W=1280, H=720, crop=512, nt=25):
    import bundlegen

    bundle = os.path.join(out, "bundle")
    os.makedirs(bundle, exist_ok=True)
    w = lambda name, data: bundlegen.write(os.path.join(bundle, name), data)

    driver, prior, mats, (dx, dy) = paint_frames(W, H, crop, nt)
    w("P.f16", bundlegen.f16(prior))
    w("pooled64.f16", np.zeros((nt, 64, 32, 32), np.float16).tobytes())
    w("M.f32", mats.tobytes())
    w("mask_512.u8", face_mask(crop).tobytes())
    # The driver as H.264: the whole loop in a few hundred kilobytes.
    bundlegen.ffmpeg_encode(os.path.join(bundle, "target_frames.mp4"), driver.tobytes(), (W, H), "rgb24",
                            ["-c:v", "libx264", "-crf", "14", "-pix_fmt", "yuv420p"])

    rest = keypoints(nt, dx, dy)
    w("xs_target.bin", rest.tobytes())
    w("drive/xs.f32", rest.tobytes())
    w("drive/xd.f32", rest.tobytes())
    w("drive/si.i32", np.arange(nt, dtype=np.int32).tobytes())

    for key, batch in (("b1", 1), ("b4", 4), ("render", 1)):
        w("model_%s.onnx" % key, director(crop, batch))

    # Audio: the a2x members, the whole-utterance model and the speech encoders.
    w("a2x_meta.json", json.dumps({"h": CTX_H, "window": 2, "left": 4, "layers": 2, "width": False,
                                   "silence_prime": 0}).encode())
    w("a2x_pos.f32", np.zeros((64, CTX_H), np.float32).tobytes())
    w("a2x_norm.f32", np.concatenate([np.zeros(63), np.ones(63)]).astype(np.float32).tobytes())
    w("a2x_enc_stream.onnx", band_encoder_graph())
    w("a2x_dec.onnx", decoder_graph())
    w("fca_stream.onnx", fca_graph())
    w("audio_encoder_fp16.onnx", encoder8_graph())
    w("audio_encoder_fp16_window_trunk.onnx", trunk_graph())
    w("audio_encoder_fp16_window_head.onnx", head_graph())

    manifest = {"format": "xj-bundle-v0", "agent": "demogen", "NT": nt, "H": H, "W": W, "crop": crop,
                "amount": 0.0, "sigma": 1.0, "ksize": 1, "frames": nt, "M_src_w": W, "M_src_h": H}
    w("manifest.json", json.dumps(manifest, indent=1).encode())

    motiongen.make_motion_dir(os.path.join(out, "motion"), meta=dict(motiongen.META, nt=nt, n_src=nt))
    return bundle


def main(argv):
    import argparse

    ap = argparse.ArgumentParser(prog="bundlegen.py demo", description="writes OUT/bundle and OUT/motion")
    ap.add_argument("--out", required=True)
    ap.add_argument("--width", type=int, default=1280)
    ap.add_argument("--height", type=int, default=720)
    ap.add_argument("--crop", type=int, default=512)
    ap.add_argument("--nt", type=int, default=25)
    a = ap.parse_args(argv)
    make_demo(a.out, W=a.width, H=a.height, crop=a.crop, nt=a.nt)
    return 0
