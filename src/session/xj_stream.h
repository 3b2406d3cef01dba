// The batch stream: a whole utterance to video frames through a callback, with
// the director on a render thread and the paste on the caller's thread, side by
// side over a ring of four crops.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "xj/xj.h"

struct xj_stream {
  xj_ctx* ctx = nullptr;
  xj_fca* fca = nullptr;
  std::vector<float> targetKp;  // NT * 63: the resting keypoints of each source frame
  int32_t nt = 0, w = 0, h = 0, crop = 0;
  int32_t skip = 0;
  float gain = 1.0f;

  ~xj_stream();
  int run(const float* pcm, int n, xj_stream_frame_fn cb, void* user);
};
