"""Motion directories for tests: every member at its exact size, and three small
graphs with the real contracts whose outputs a test can redo independently:

  hubert_student  mel [1,80,21]              -> feat [1,20,1024]   feat[r][d] = mel[d % 80][r]
  lmdm            kp [1,265], cond [1,80,1103] -> pred [1,80,265]
                  pred[i][j] = 0.6 kp[j] + 0.4 tanh(cond[i][j]) + 0.05 mean_k cond[i][k]
                               + 0.1 tanh(mean_i cond[i][j])      (j < 265, i < 80)
  stitch          a [1,63], b [1,63]         -> st [1,21,3]        st = 0.3 a + 0.7 b

So the generator follows the audio (through the student's rows), its seed and
every row of its chunk (a short chunk's repeated tail shows), and the stitch
mixes both of its inputs. Variants for refusal and edge tests go
to motion_graphs/: stitch_pass.onnx (st = b), student_dynbatch.onnx (a dynamic
first dimension), student_short.onnx (mel of 20 frames: too small).
"""
import json
import os

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 16
N_MEL, N_FRAMES, N_BINS = 80, 21, 257
ROW, COND, KP, POSE = 265, 1103, 63, 328

# meta.json of the standard fixture.
META = {"nt": 5, "n_src": 5, "n_emo": 3, "s_bridge": 1.5, "delta_pitch": 2.5}


def _model(nodes, name, inputs, outputs, inits):
    g = helper.make_graph(nodes, name, inputs, outputs, initializer=inits)
    m = helper.make_model(g, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="bundlegen")
    m.ir_version = 8
    onnx.checker.check_model(m)
    return m.SerializeToString()


def _c(name, arr):
    return numpy_helper.from_array(np.asarray(arr), name)


def _vi(name, shape):
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)


def student_graph(batch=1, frames=N_FRAMES):
    nodes = [
        helper.make_node("Slice", ["mel", "s0", "s20", "ax2"], ["mel20"]),          # [B,80,20]
        helper.make_node("Transpose", ["mel20"], ["rows"], perm=[0, 2, 1]),         # [B,20,80]
        helper.make_node("Tile", ["rows", "reps"], ["tiled"]),                      # [B,20,1040]
        helper.make_node("Slice", ["tiled", "s0", "s1024", "ax2"], ["feat"]),       # [B,20,1024]
    ]
    inits = [_c("s0", np.array([0], np.int64)), _c("s20", np.array([20], np.int64)),
             _c("s1024", np.array([1024], np.int64)), _c("ax2", np.array([2], np.int64)),
             _c("reps", np.array([1, 1, 13], np.int64))]
    return _model(nodes, "test_student", [_vi("mel", [batch, N_MEL, frames])], [_vi("feat", [batch, 20, 1024])],
                  inits)


def lmdm_graph():
    nodes = [
        helper.make_node("Slice", ["cond", "s0", "s265", "ax2"], ["c265"]),
        helper.make_node("Tanh", ["c265"], ["th"]),
        helper.make_node("Mul", ["th", "w_cond"], ["thw"]),
        helper.make_node("ReduceMean", ["cond"], ["cm"], axes=[2], keepdims=1),  # [1,80,1]
        helper.make_node("Mul", ["cm", "w_mean"], ["cmw"]),
        helper.make_node("Mul", ["kp", "w_kp"], ["kpw"]),
        helper.make_node("Reshape", ["kpw", "shape_kp"], ["kp3"]),              # [1,1,265]
        helper.make_node("Add", ["thw", "cmw"], ["sum1"]),
        helper.make_node("Add", ["sum1", "kp3"], ["sum2"]),
        helper.make_node("ReduceMean", ["c265"], ["tm"], axes=[1], keepdims=1),  # [1,1,265]
        helper.make_node("Tanh", ["tm"], ["tmt"]),
        helper.make_node("Mul", ["tmt", "w_chunk"], ["tmw"]),
        helper.make_node("Add", ["sum2", "tmw"], ["pred"]),
    ]
    inits = [_c("s0", np.array([0], np.int64)), _c("s265", np.array([ROW], np.int64)),
             _c("ax2", np.array([2], np.int64)), _c("w_cond", np.float32(0.4)), _c("w_mean", np.float32(0.05)),
             _c("w_kp", np.float32(0.6)), _c("w_chunk", np.float32(0.1)), _c("shape_kp", np.array([1, 1, ROW], np.int64))]
    return _model(nodes, "test_lmdm", [_vi("kp", [1, ROW]), _vi("cond", [1, 80, COND])],
                  [_vi("pred", [1, 80, ROW])], inits)


def stitch_graph(wa=0.3, wb=0.7):
    nodes = [
        helper.make_node("Mul", ["a", "wa"], ["aw"]),
        helper.make_node("Mul", ["b", "wb"], ["bw"]),
        helper.make_node("Add", ["aw", "bw"], ["mix"]),
        helper.make_node("Reshape", ["mix", "shape"], ["st"]),
    ]
    inits = [_c("wa", np.float32(wa)), _c("wb", np.float32(wb)), _c("shape", np.array([1, 21, 3], np.int64))]
    return _model(nodes, "test_stitch", [_vi("a", [1, KP]), _vi("b", [1, KP])], [_vi("st", [1, 21, 3])], inits)


def stitch_pass_graph():
    """st = b exactly; a is declared and multiplied by zero."""
    nodes = [
        helper.make_node("Mul", ["a", "zero"], ["az"]),
        helper.make_node("Add", ["b", "az"], ["sum"]),
        helper.make_node("Reshape", ["sum", "shape"], ["st"]),
    ]
    inits = [_c("zero", np.float32(0.0)), _c("shape", np.array([1, 21, 3], np.int64))]
    return _model(nodes, "test_stitch_pass", [_vi("a", [1, KP]), _vi("b", [1, KP])], [_vi("st", [1, 21, 3])],
                  inits)


def mel_matrix():
    """Triangular mel filters on the HTK scale over 0..8000 Hz: 257 rows of 80."""
    hz = np.linspace(0.0, 8000.0, N_BINS)
    mel = lambda f: 2595.0 * np.log10(1.0 + f / 700.0)
    edges = 700.0 * (10.0 ** (np.linspace(mel(0.0), mel(8000.0), N_MEL + 2) / 2595.0) - 1.0)
    m = np.zeros((N_BINS, N_MEL))
    for b in range(N_MEL):
        lo, mid, hi = edges[b], edges[b + 1], edges[b + 2]
        up = (hz - lo) / (mid - lo)
        down = (hi - hz) / (hi - mid)
        m[:, b] = np.maximum(0.0, np.minimum(up, down))
        if m[:, b].max() == 0.0:  # a filter narrower than a bin takes its nearest bin
            m[np.argmin(np.abs(hz - mid)), b] = 1.0
    return m.astype(np.float32)


def pose_record(rng, scale):
    r = np.zeros(POSE, np.float32)
    r[0:63] = rng.uniform(-0.05, 0.05, 63)       # expression offsets
    r[63:126] = rng.uniform(-0.5, 0.5, 63)       # canonical keypoints
    r[126:192] = rng.normal(0.0, 1.5, 66)        # pitch logits
    r[192:258] = rng.normal(0.0, 1.5, 66)        # roll logits
    r[258] = scale
    r[259:262] = rng.uniform(-0.1, 0.1, 3)       # translation
    r[262:328] = rng.normal(0.0, 1.5, 66)        # yaw logits
    return r


def _f32(a):
    return np.asarray(a, dtype=np.float32).tobytes()


def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def make_motion_dir(out, seed=11, meta=None):
    """A motion directory with every member at its exact size."""
    meta = dict(META if meta is None else meta)
    rng = np.random.RandomState(seed)
    nt, n_emo = int(meta["nt"]), int(meta["n_emo"])
    n = np.arange(512)
    members = {
        "hubert_stft_window.bin": 0.5 - 0.5 * np.cos(2.0 * np.pi * n / 512),
        "hubert_stft_binmat.bin": mel_matrix(),
        "hubert_fmean.bin": rng.uniform(-0.2, 0.2, 1024),
        "hubert_fstd.bin": rng.uniform(0.05, 0.2, 1024),
        "emo.bin": rng.uniform(-1.0, 1.0, (n_emo, 8)),
        "ch_xs_info.bin": pose_record(rng, 1.2),
        "ch_sc.bin": rng.uniform(-0.5, 0.5, 63),
        "ch_eye_open.bin": rng.uniform(0.0, 1.0, 2),
        "ch_eye_ball.bin": rng.uniform(-0.2, 0.2, 6),
        "v_min_max.bin": np.concatenate([np.full(202, -1.5), np.full(63, -0.3),
                                         np.full(202, 1.5), np.full(63, 0.3)]),
        "src_xs_info.bin": np.stack([pose_record(rng, 1.0 + 0.05 * i) for i in range(nt)]),
        "xs_target.bin": rng.uniform(-0.4, 0.4, (nt, 63)),
    }
    for name, arr in members.items():
        _write(os.path.join(out, name), _f32(arr))
    _write(os.path.join(out, "meta.json"), json.dumps(meta, indent=1).encode())
    _write(os.path.join(out, "hubert_student.onnx"), student_graph())
    _write(os.path.join(out, "lmdm.onnx"), lmdm_graph())
    _write(os.path.join(out, "stitch.onnx"), stitch_graph())


def motion_fixtures(out):
    make_motion_dir(os.path.join(out, "motion"))
    graphs = os.path.join(out, "motion_graphs")
    _write(os.path.join(graphs, "stitch_pass.onnx"), stitch_pass_graph())
    _write(os.path.join(graphs, "student_dynbatch.onnx"), student_graph(batch="batch"))
    _write(os.path.join(graphs, "student_short.onnx"), student_graph(frames=20))
