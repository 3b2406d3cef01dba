"""Bundles for the live session: the engine bundle, its keypoint table and its
audio models agree on the number of source frames, so that every frame of a
session, idle, speech or ramp, plays the driver loop in order."""
import os

import numpy as np

import a2xgen

NT = 12


def live_bundle(out, *, crop=16, W=40, H=32, nt=NT, seed=4):
    """A bundle that a live session or a batch stream can run on, with its own
    a2x members, fca_stream.onnx and resting keypoints."""
    import bundlegen

    models = {"model_b1.onnx": bundlegen.plain_director(crop, 1, 21),
              "model_b4.onnx": bundlegen.plain_director(crop, 4, 21),
              "model_render.onnx": bundlegen.plain_director(crop, 1, 21)}
    rng = np.random.RandomState(41)
    target = rng.uniform(-0.3, 0.3, size=(nt, 63)).astype(np.float32)
    bundlegen.make_bundle(out, nt=nt, crop=crop, W=W, H=H, frames=nt, seed=seed, models=models)
    a2xgen.write_a2x(out, nt=nt, xs_target=target)
    a2xgen._write(os.path.join(out, "fca_stream.onnx"), a2xgen.fca_stream_graph(gain=0.5))
    return models, target


def live_fixtures(out):
    import bundlegen  # the generator's own helpers; imported here, after it has loaded
    import motiongen

    models, _ = live_bundle(os.path.join(out, "live"))
    motiongen.make_motion_dir(os.path.join(out, "live_motion"), meta=dict(motiongen.META, nt=NT, n_src=NT))

    # No resting keypoints: a session on it never ramps.
    bundlegen.make_bundle(os.path.join(out, "live_bare"), nt=NT, crop=16, frames=NT, seed=4, models=models)

    # A driver whose fifth frame does not decode.
    broken = os.path.join(out, "live_broken")
    live_bundle(broken)
    with open(os.path.join(broken, "target_frames", "frame_000004.jpg"), "wb") as f:
        f.write(b"not a jpeg")
