// The motion model: audio to keypoint rows through its own log-mel front end,
// a student network (hubert_student.onnx), a generator that makes 80 motion
// rows a run (lmdm.onnx) and a stitching network (stitch.onnx); and the cadence
// that decides when a window and a chunk run and which frames may leave,
// with the speculative (eager) passes that cut the wait for a chunk.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "audio/xj_motion_mel.h"
#include "audio/xj_motion_net.h"
#include "xj/xj.h"

namespace xj::motion {

constexpr int kFrameSamples = 640;    // one video frame at 16 kHz, 25 fps
constexpr int kWindowFrames = 5;      // condition rows one window adds
constexpr int kStudentRows = 20;      // student output rows per window
constexpr int kAudioDim = 1024;
constexpr int kEmoDim = 8;
constexpr int kCondDim = 1103;        // audio, emotion, eye open, eye ball, sc
constexpr int kRowDim = 265;          // one motion row
constexpr int kFiltered = 202;        // leading values of a row that the three-tap filter smooths
constexpr int kKpDim = 63;            // 21 points of x, y, z
constexpr int kPoseDim = 328;         // one pose record
constexpr int kChunk = 80;            // generator rows per run
constexpr int kChunkStep = 70;        // a chunk starts this far behind the previous one
constexpr int kOverlap = kChunk - kChunkStep;
constexpr int kLogitBins = 66;
constexpr int kMaxEagerStep = 8;

// Offsets into a pose record.
constexpr int kPoseExp = 0;
constexpr int kPoseCanonical = 63;
constexpr int kPosePitch = 126;
constexpr int kPoseRoll = 192;
constexpr int kPoseScale = 258;
constexpr int kPoseT = 259;
constexpr int kPoseYaw = 262;

// Offsets into a motion row.
constexpr int kRowScale = 0;
constexpr int kRowPitch = 1;
constexpr int kRowYaw = 67;
constexpr int kRowRoll = 133;
constexpr int kRowT = 199;
constexpr int kRowExp = 202;

// The six lip points that speech moves.
constexpr int kLip[6] = {6, 12, 14, 17, 19, 20};

// Degrees from 66 bin logits: the softmax's expected bin, times 3, minus 97.5.
float bin66(const float* logits);
// Rotation from pitch, yaw and roll in degrees, row-major.
void poseToR(float pitch, float yaw, float roll, float R[3][3]);
// Frames between eager passes: 1 until a frame has left, then a fixed `eager`,
// or (automatic, eager < 0) what one pass costs in 40 ms frames, from 1 to 8.
int eagerStep(int eager, bool anyEmitted, double eagerMs);

}  // namespace xj::motion

// One motion model. Used by one thread at a time; the front end's scratch is
// per thread, so handles on different threads share nothing.
struct xj_motion {
  xj_motion(const std::string& dir, int threads, const std::string& ep);
  xj_motion(const xj_motion&) = delete;
  xj_motion& operator=(const xj_motion&) = delete;

  void reset(int start, int dir, int loop);
  void setEager(int value) { eager = value; }
  void push(const float* samples, int count);
  void finish();
  // Runs whatever windows and chunks can run and returns the frames ready.
  int avail();
  // Up to n frames: driver rows, source and driven keypoint rows.
  int pull(int32_t* rows, float* xs, float* xd, int n);

  // ---- tables of the directory ----
  std::string dir;
  std::string dumpDir;
  int32_t nt = 0;
  int32_t n_src = 0;
  int32_t n_emo = 0;
  float s_bridge = 0.0f;
  float delta_pitch = 0.0f;
  std::vector<float> stftWindow, binmat, fmean, fstd, emo, chXsInfo, chSc, chEyeOpen, chEyeBall, vMinMax,
      srcXsInfo, xsTarget;
  float kp0[xj::motion::kRowDim];
  float ratio = 1.0f;
  xj::motion::FftTwiddles twiddles;

  // ---- networks ----
  xj::motion::OrtReady ortReady;
  Ort::Env env{nullptr};
  xj::motion::Net student, generator, stitcher;

  // ---- utterance state ----
  std::vector<float> pcm;
  std::vector<float> cond;
  int32_t cond_n = 0;
  std::vector<float> res;
  int32_t res_n = 0;
  std::vector<float> final;
  float kp[xj::motion::kRowDim];
  float first_exp[xj::motion::kKpDim];
  bool first_set = false;

  bool finished = false;
  int32_t total = -1;
  int32_t win_next = 0;
  int32_t chunk_n = 0;
  bool final_built = false;
  int32_t emitted = 0;
  int32_t drive_pos = 0, drive_dir = 1, drive_wrap = 0;
  int32_t eager = 0;
  int32_t prov_cond = 0;
  bool snap_set = false;
  int32_t snap_n = 0;
  float snap_rows[xj::motion::kOverlap * xj::motion::kRowDim];
  int32_t eager_frames = 0;
  int32_t eager_hi = -1;
  bool chunk_fresh = false;
  double eager_ms = 0.0;

  // ---- the numeric path ----
  void processWindow(int w);
  void runChunk(int start, int end, float* seed);
  void smooth(int lo, int hi);
  void emitFrame(const float* row, int src, float* xs, float* xd);
  void buildFinal();

 private:
  // Scratch, sized once.
  std::vector<float> audioWin, mel, feat, pred, genCond;
  float genKp[xj::motion::kRowDim];
  float kpEager[xj::motion::kRowDim];
  float rowBuf[xj::motion::kRowDim];
  float stA[xj::motion::kKpDim], stB[xj::motion::kKpDim], stOut[xj::motion::kKpDim];
  float expE[xj::motion::kKpDim];
  std::vector<float> tapSnap;
  bool dumpEmitStarted = false;

  void loadTables();
  void runStages();
  void eagerAdvance();
  void rollbackProvisional();
  void restoreSnapshot();
  int ready() const;
  void streamRow(int f, float* out);
  int advanceCursor();
  void dumpFloats(const char* name, const float* data, size_t n, bool append = false) const;
};
