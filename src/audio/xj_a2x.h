// The xj_a2x handle: bundle members, configuration, the silence-primed start
// state, and the streaming stages from audio to keypoint rows.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "render/xj_ort.h"
#include "xj/xj_a2x.h"

namespace xj::a2x {

constexpr int kFrameSamples = 640;
constexpr int kBlockSamples = 5120;  // live audio becomes visible in 320 ms blocks
constexpr int kRow = 63;

// Rounds to half precision and back, flushing what would be subnormal to zero.
float halfRound(float x);
// A binary16 value read as float, subnormals read as zero.
float halfBitsToFloat(uint16_t h);

// Each audio window normalised by itself, zero padding included.
void normaliseWindow(float* x, size_t n);

// The 8 s window of a whole utterance that starts at frame s: up to 128000
// samples from there, zero padding after the end, normalised by itself.
void loadWindow8(std::vector<float>& window, const float* pcm, int64_t n, int32_t s);

// Row of the positional table for absolute frame f: one pass, then the upper half cycles.
int64_t posRow(int64_t f, int64_t P);

// The driver row for frame k of an utterance.
int driveRow(int nt, int start, int dir, bool loop, int64_t k);

}  // namespace xj::a2x

struct xj_a2x {
  std::unique_ptr<Ort::Env> env;
  Ort::SessionOptions opts{nullptr};
  Ort::Session* w2v = nullptr;
  std::string w2v_path;
  int32_t n_threads = 0;
  std::unique_ptr<Ort::Session> enc, dec;
  Ort::MemoryInfo mem{nullptr};
  int32_t h = 256, window = 0, left = 0, nt = 0;
  int32_t left_reach = 0, right_reach = 0, right = 12;
  bool short_window = false;
  int32_t win_right = 12;
  std::vector<float> pos, norm_mean, norm_std, xs_target;
  std::string enc_out, wn_out;
  bool width = false;
  std::vector<float> batch_wn;
  std::vector<float> pcm;
  bool finished = false;
  int32_t pulled = 0;
  int32_t drive_start = 0, drive_dir = 1, drive_loop = 1;
  int32_t eager = -1;
  std::vector<float> feat;
  int32_t win_next = 0, feat_n = 0;
  std::vector<float> ctx, wn;
  int32_t ctx_n = 0;
  std::vector<float> deltas;
  std::vector<float> prev, state;
  int32_t dec_n = 0;
  int64_t pcm_base = 0;
  int32_t feat_base = 0, ctx_base = 0, delta_base = 0;
  std::vector<float> prime_prev, prime_state;

  // Time spent inside graph runs, for profiling the handle's own work.
  int64_t graph_ns = 0;
  int64_t graph_runs = 0;

  // Scratch of the stages, kept between calls.
  std::vector<float> window8, posBuf, attnBuf, winX, mOut, hOut;
};
