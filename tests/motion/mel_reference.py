#!/usr/bin/python3
"""Log-mel spectrogram of audio windows, in float64 with numpy's FFT.

  mel_reference.py MOTION_DIR WINDOWS OUT

WINDOWS: raw float32, K windows of 6480 samples. OUT: raw float64, K blocks of
80 mel bins by 21 frames (bin-major). The analysis window and the bin matrix
are the motion directory's hubert_stft_window.bin and hubert_stft_binmat.bin.
"""
import os
import sys

import numpy as np


def log_mel(samples, window, binmat):
    padded = np.pad(samples.astype(np.float64), 256, mode="reflect")  # edge sample not repeated
    frames = np.stack([padded[t * 320:t * 320 + 512] for t in range(21)])
    mag = np.abs(np.fft.rfft(frames * window[None, :], axis=1))       # [21, 257]
    return np.log(mag @ binmat + 1e-8).T                                # [80, 21]


def main(argv):
    motion_dir, windows_path, out_path = argv
    window = np.fromfile(os.path.join(motion_dir, "hubert_stft_window.bin"), dtype=np.float32).astype(np.float64)
    binmat = np.fromfile(os.path.join(motion_dir, "hubert_stft_binmat.bin"), dtype=np.float32)
    binmat = binmat.astype(np.float64).reshape(257, 80)
    windows = np.fromfile(windows_path, dtype=np.float32).reshape(-1, 6480)
    out = np.stack([log_mel(w, window, binmat) for w in windows])
    out.astype(np.float64).tofile(out_path)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
