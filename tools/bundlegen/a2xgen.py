"""Speech encoders and a2x members for tests: small graphs with the real contracts.

  8 s encoder   input_values [1,128000] -> audio_emb [12,200,768]
  trunk         input_values [1,32000]  -> latent float16 [1,640,400] (one step per 80 samples)
  head          x [8,640]               -> emb [8,12,768]
  band encoder  feat [1,T,12,768], pos_window [1,T,h], attn [1,1,T,T] -> ctx [1,T,h] (, wn [1,T])
  decoder       ctx_t [1,h], prev [1,63], h [1,1,h] -> m [1,63], h_out [1,1,h]

Features follow the audio (per-frame energy and mean); the band encoder mixes
frames only through the attention mask (a masked maximum of pairwise scores,
which is exact whatever the band length) and adds the positional rows; the
decoder carries its state from frame to frame.
"""
import json
import os

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 16


def _model(nodes, name, inputs, outputs, inits):
    g = helper.make_graph(nodes, name, inputs, outputs, initializer=inits)
    m = helper.make_model(g, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="bundlegen")
    m.ir_version = 8
    onnx.checker.check_model(m)
    return m.SerializeToString()


def _c(name, arr):
    return numpy_helper.from_array(np.asarray(arr), name)


def _frame_stats(x, frames, per, prefix):
    """Per-frame energy and mean of x [1, frames*per]: nodes and the names of the two [frames,1] results."""
    return [
        helper.make_node("Reshape", [x, prefix + "shape"], [prefix + "fr"]),
        helper.make_node("Mul", [prefix + "fr", prefix + "fr"], [prefix + "sq"]),
        helper.make_node("ReduceMean", [prefix + "sq"], [prefix + "e"], axes=[1], keepdims=1),
        helper.make_node("ReduceMean", [prefix + "fr"], [prefix + "mu"], axes=[1], keepdims=1),
    ], [_c(prefix + "shape", np.array([frames, per], dtype=np.int64))]


def _affine_tanh(e, mu, width, rng, prefix, out):
    a = rng.uniform(0.2, 1.0, size=(1, width)).astype(np.float32)
    b = rng.uniform(-1.0, 1.0, size=(1, width)).astype(np.float32)
    c = rng.uniform(-0.5, 0.5, size=(1, width)).astype(np.float32)
    nodes = [
        helper.make_node("Mul", [e, prefix + "a"], [prefix + "ea"]),
        helper.make_node("Mul", [mu, prefix + "b"], [prefix + "mb"]),
        helper.make_node("Add", [prefix + "ea", prefix + "mb"], [prefix + "s1"]),
        helper.make_node("Add", [prefix + "s1", prefix + "c"], [prefix + "s2"]),
        helper.make_node("Tanh", [prefix + "s2"], [out]),
    ]
    return nodes, [_c(prefix + "a", a), _c(prefix + "b", b), _c(prefix + "c", c)]


def w2v8_graph(seed=11):
    rng = np.random.RandomState(seed)
    n1, i1 = _frame_stats("input_values", 200, 640, "w_")
    n2, i2 = _affine_tanh("w_e", "w_mu", 9216, rng, "w_", "w_feat")
    nodes = n1 + n2 + [
        helper.make_node("Reshape", ["w_feat", "w_fshape"], ["w_f3"]),
        helper.make_node("Transpose", ["w_f3"], ["audio_emb"], perm=[1, 0, 2]),
    ]
    inits = i1 + i2 + [_c("w_fshape", np.array([200, 12, 768], dtype=np.int64))]
    return _model(nodes, "w2v8", [helper.make_tensor_value_info("input_values", TensorProto.FLOAT, [1, 128000])],
                  [helper.make_tensor_value_info("audio_emb", TensorProto.FLOAT, [12, 200, 768])], inits)


def trunk_graph(seed=12, declare_lt=True):
    """With declare_lt False the input length is symbolic, so the time axis is known only from a run."""
    rng = np.random.RandomState(seed)
    steps = 400 if declare_lt else -1
    n1, i1 = _frame_stats("input_values", steps, 80, "t_")
    n2, i2 = _affine_tanh("t_e", "t_mu", 640, rng, "t_", "t_lat")
    nodes = n1 + n2 + [
        helper.make_node("Transpose", ["t_lat"], ["t_lt"], perm=[1, 0]),
        helper.make_node("Reshape", ["t_lt", "t_oshape"], ["t_l3"]),
        helper.make_node("Cast", ["t_l3"], ["latent"], to=TensorProto.FLOAT16),
    ]
    inits = i1 + i2 + [_c("t_oshape", np.array([1, 640, steps], dtype=np.int64))]
    in_shape = [1, 32000] if declare_lt else [1, "N"]
    out_shape = [1, 640, 400] if declare_lt else [1, 640, "LT"]
    return _model(nodes, "trunk", [helper.make_tensor_value_info("input_values", TensorProto.FLOAT, in_shape)],
                  [helper.make_tensor_value_info("latent", TensorProto.FLOAT16, out_shape)], inits)


def head_graph(seed=13):
    rng = np.random.RandomState(seed)
    nodes = [
        helper.make_node("Mul", ["x", "x"], ["h_sq"]),
        helper.make_node("ReduceMean", ["h_sq"], ["h_e"], axes=[1], keepdims=1),
        helper.make_node("ReduceMean", ["x"], ["h_mu"], axes=[1], keepdims=1),
    ]
    n2, i2 = _affine_tanh("h_e", "h_mu", 9216, rng, "h_", "h_feat")
    nodes += n2 + [helper.make_node("Reshape", ["h_feat", "h_oshape"], ["emb"])]
    inits = i2 + [_c("h_oshape", np.array([8, 12, 768], dtype=np.int64))]
    return _model(nodes, "head", [helper.make_tensor_value_info("x", TensorProto.FLOAT, [8, 640])],
                  [helper.make_tensor_value_info("emb", TensorProto.FLOAT, [8, 12, 768])], inits)


def band_encoder_graph(h, width=True):
    T = "T"
    nodes = [
        helper.make_node("ReduceMean", ["feat"], ["f2"], axes=[2], keepdims=0),       # [1,T,768]
        helper.make_node("Slice", ["f2", "zero", "hcount", "two"], ["fs"]),           # [1,T,h]
        helper.make_node("Mul", ["fs", "four"], ["fs4"]),
        helper.make_node("Add", ["fs4", "pos_window"], ["v"]),
        helper.make_node("Slice", ["v", "zero", "one", "two"], ["qa"]),               # [1,T,1]
        helper.make_node("Slice", ["v", "one", "two", "two"], ["qb"]),                # [1,T,1]
        helper.make_node("Transpose", ["qb"], ["qbt"], perm=[0, 2, 1]),               # [1,1,T]
        helper.make_node("Mul", ["qa", "qbt"], ["score"]),                            # [1,T,T]
        helper.make_node("Unsqueeze", ["score", "one"], ["score4"]),                  # [1,1,T,T]
        helper.make_node("Add", ["score4", "attn"], ["masked"]),
        helper.make_node("ReduceMax", ["masked"], ["mx"], axes=[3], keepdims=0),      # [1,1,T]
        helper.make_node("Transpose", ["mx"], ["mxt"], perm=[0, 2, 1]),               # [1,T,1]
        helper.make_node("Add", ["v", "mxt"], ["pre"]),
        helper.make_node("Tanh", ["pre"], ["ctx"]),
    ]
    outputs = [helper.make_tensor_value_info("ctx", TensorProto.FLOAT, [1, T, h])]
    if width:
        nodes.append(helper.make_node("ReduceMean", ["ctx"], ["wn"], axes=[2], keepdims=0))
        outputs.append(helper.make_tensor_value_info("wn", TensorProto.FLOAT, [1, T]))
    inits = [_c("zero", np.array([0], dtype=np.int64)), _c("one", np.array([1], dtype=np.int64)),
             _c("two", np.array([2], dtype=np.int64)), _c("hcount", np.array([h], dtype=np.int64)),
             _c("four", np.array(4.0, dtype=np.float32))]
    inputs = [helper.make_tensor_value_info("feat", TensorProto.FLOAT, [1, T, 12, 768]),
              helper.make_tensor_value_info("pos_window", TensorProto.FLOAT, [1, T, h]),
              helper.make_tensor_value_info("attn", TensorProto.FLOAT, [1, 1, T, T])]
    return _model(nodes, "band_encoder", inputs, outputs, inits)


def decoder_graph(h, seed=14, gain=1.0):
    rng = np.random.RandomState(seed)
    A = rng.uniform(-1, 1, size=(h, h)).astype(np.float32) / np.sqrt(h)
    B = rng.uniform(-1, 1, size=(h, h)).astype(np.float32) * (0.8 / np.sqrt(h))
    C = rng.uniform(-1, 1, size=(63, h)).astype(np.float32) * 0.1
    D = rng.uniform(-1, 1, size=(h, 63)).astype(np.float32) * gain
    nodes = [
        helper.make_node("Reshape", ["h", "hshape"], ["hs"]),
        helper.make_node("MatMul", ["ctx_t", "A"], ["za"]),
        helper.make_node("MatMul", ["hs", "B"], ["zb"]),
        helper.make_node("MatMul", ["prev", "C"], ["zc"]),
        helper.make_node("Add", ["za", "zb"], ["z1"]),
        helper.make_node("Add", ["z1", "zc"], ["z2"]),
        helper.make_node("Tanh", ["z2"], ["hn"]),
        helper.make_node("Reshape", ["hn", "oshape"], ["h_out"]),
        helper.make_node("MatMul", ["hn", "D"], ["m"]),
    ]
    inits = [_c("A", A), _c("B", B), _c("C", C), _c("D", D), _c("hshape", np.array([1, h], dtype=np.int64)),
             _c("oshape", np.array([1, 1, h], dtype=np.int64))]
    inputs = [helper.make_tensor_value_info("ctx_t", TensorProto.FLOAT, [1, h]),
              helper.make_tensor_value_info("prev", TensorProto.FLOAT, [1, 63]),
              helper.make_tensor_value_info("h", TensorProto.FLOAT, [1, 1, h])]
    outputs = [helper.make_tensor_value_info("m", TensorProto.FLOAT, [1, 63]),
               helper.make_tensor_value_info("h_out", TensorProto.FLOAT, [1, 1, h])]
    return _model(nodes, "decoder", inputs, outputs, inits)


def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def write_w2v(out, pair=("audio_encoder_fp16_window_trunk.onnx", "audio_encoder_fp16_window_head.onnx"),
              declare_lt=True):
    """The 8 s encoder as w2v8.onnx, and the pair beside it under the given names (None: no pair)."""
    _write(os.path.join(out, "w2v8.onnx"), w2v8_graph())
    if pair:
        _write(os.path.join(out, pair[0]), trunk_graph(declare_lt=declare_lt))
        _write(os.path.join(out, pair[1]), head_graph())


def write_a2x(out, *, h=16, window=2, left=4, layers=2, width=True, graph_width=None, silence_prime=0,
              pos_rows=64, nt=7, seed=21, canonical=False, dec_gain=1.0, xs_target=None):
    rng = np.random.RandomState(seed)
    gw = width if graph_width is None else graph_width
    meta = {"h": h, "window": window, "left": left, "layers": layers, "width": bool(width),
            "silence_prime": silence_prime}
    _write(os.path.join(out, "a2x_meta.json"), json.dumps(meta).encode())
    _write(os.path.join(out, "a2x_pos.f32"), rng.uniform(-0.5, 0.5, size=(pos_rows, h)).astype(np.float32).tobytes())
    norm = np.concatenate([rng.uniform(-0.01, 0.01, 63), rng.uniform(0.01, 0.05, 63)]).astype(np.float32)
    _write(os.path.join(out, "a2x_norm.f32"), norm.tobytes())
    if xs_target is None:
        xs_target = rng.uniform(-0.3, 0.3, size=(nt, 63)).astype(np.float32)
    names = (("target_keypoints.bin", "audio_motion_encoder.onnx", "audio_motion_decoder.onnx") if canonical
             else ("xs_target.bin", "a2x_enc_stream.onnx", "a2x_dec.onnx"))
    _write(os.path.join(out, names[0]), np.asarray(xs_target, dtype=np.float32).tobytes())
    _write(os.path.join(out, names[1]), band_encoder_graph(h, width=gw))
    _write(os.path.join(out, names[2]), decoder_graph(h, gain=dec_gain))


def a2x_fixtures(out):
    write_w2v(os.path.join(out, "w2v_pair"))
    write_w2v(os.path.join(out, "w2v_only"), pair=None)
    write_w2v(os.path.join(out, "w2v_legacy"), pair=("w2v_trunk32.onnx", "w2v_head32.onnx"), declare_lt=False)
    # Only the trunk of the new names and the whole legacy pair: the legacy pair serves.
    write_w2v(os.path.join(out, "w2v_half"), pair=("w2v_trunk32.onnx", "w2v_head32.onnx"))
    _write(os.path.join(out, "w2v_half", "audio_encoder_fp16_window_trunk.onnx"), trunk_graph())
    write_a2x(os.path.join(out, "a2x"))
    write_a2x(os.path.join(out, "a2x_canonical"), canonical=True)
    write_a2x(os.path.join(out, "a2x_narrow"), width=True, graph_width=False, nt=1)
    write_a2x(os.path.join(out, "a2x_prime"), silence_prime=500, nt=2)
    # A positional table longer than the test utterances: no band is cut at its end.
    write_a2x(os.path.join(out, "a2x_longpos"), pos_rows=400)
    fca_fixtures(out)


def fca_stream_graph(seed=31, gain=0.05):
    """cond [1,5376], prev [1,63], h [1,1,384] -> m [1,63], hn [1,1,384]."""
    rng = np.random.RandomState(seed)
    Wc = (rng.uniform(-1, 1, size=(5376, 16)) / np.sqrt(5376) * 4).astype(np.float32)
    Wh = (rng.uniform(-1, 1, size=(384, 16)) / np.sqrt(384)).astype(np.float32)
    Wp = (rng.uniform(-1, 1, size=(63, 16)) * 0.2).astype(np.float32)
    Up = (rng.uniform(-1, 1, size=(16, 384))).astype(np.float32)
    D = (rng.uniform(-1, 1, size=(384, 63)) * gain).astype(np.float32)
    nodes = [
        helper.make_node("Reshape", ["h", "hshape"], ["hs"]),
        helper.make_node("MatMul", ["cond", "Wc"], ["zc"]),
        helper.make_node("MatMul", ["hs", "Wh"], ["zh"]),
        helper.make_node("MatMul", ["prev", "Wp"], ["zp"]),
        helper.make_node("Add", ["zc", "zh"], ["z1"]),
        helper.make_node("Add", ["z1", "zp"], ["z2"]),
        helper.make_node("Tanh", ["z2"], ["small"]),
        helper.make_node("MatMul", ["small", "Up"], ["wide"]),
        helper.make_node("Tanh", ["wide"], ["hn2"]),
        helper.make_node("Reshape", ["hn2", "oshape"], ["hn"]),
        helper.make_node("MatMul", ["hn2", "D"], ["m"]),
    ]
    inits = [_c("Wc", Wc), _c("Wh", Wh), _c("Wp", Wp), _c("Up", Up), _c("D", D),
             _c("hshape", np.array([1, 384], dtype=np.int64)), _c("oshape", np.array([1, 1, 384], dtype=np.int64))]
    inputs = [helper.make_tensor_value_info("cond", TensorProto.FLOAT, [1, 5376]),
              helper.make_tensor_value_info("prev", TensorProto.FLOAT, [1, 63]),
              helper.make_tensor_value_info("h", TensorProto.FLOAT, [1, 1, 384])]
    outputs = [helper.make_tensor_value_info("m", TensorProto.FLOAT, [1, 63]),
               helper.make_tensor_value_info("hn", TensorProto.FLOAT, [1, 1, 384])]
    return _model(nodes, "fca_stream", inputs, outputs, inits)


def fca_fixtures(out):
    _write(os.path.join(out, "fca", "fca_stream.onnx"), fca_stream_graph())
