#!/usr/bin/python3
"""Reference of the running baseline, written independently with numpy.

  baseline_ref.py IN OUT T     IN: T*768 float32 frames; OUT: the frames with the baseline subtracted
"""
import math
import sys

import numpy as np


def main(inp, outp, T):
    x = np.fromfile(inp, dtype=np.float32).reshape(T, 768)
    # Energy: squares summed in order in double precision, rooted, stored as float32.
    energy = np.empty(T, dtype=np.float32)
    for t in range(T):
        s = 0.0
        for v in x[t].tolist():
            s += v * v
        energy[t] = np.float32(math.sqrt(s))
    total = np.zeros(768, dtype=np.float32)
    count = 0
    out = np.empty_like(x)
    for t in range(T):
        if t < 7:
            thr = np.float32(0.0)
        else:
            srt = np.sort(energy[: t + 1])
            pos = 0.2 * t
            lo, hi = math.floor(pos), math.ceil(pos)
            thr = np.float32(float(srt[lo]) + (float(srt[hi]) - float(srt[lo])) * (pos - math.floor(pos)))
        if energy[t] > thr:
            total = (total + x[t]).astype(np.float32)
            count += 1
        inv = np.float32(1.0) / np.float32(count if count else 1)
        out[t] = (x[t] - (total * inv).astype(np.float32)).astype(np.float32)
    out.tofile(outp)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]))
