// The live utterance session: audio in, whole frames out, for ever. One main
// thread decides what happens next; a dispatch thread does the audio model's
// work; a paste thread (optional) composites into a ring of 8 frames that the
// host pulls at its own rate. Every hand-over is a bounded queue.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capi/xj_capi.h"
#include "render/xj_renderer.h"
#include "xj/xj.h"

struct xj_utt {
  static constexpr int kRing = 8;
  static constexpr int kQueue = 32;
  static constexpr int kRow = 63;

  struct Slot {
    std::vector<uint8_t> rgb;
    uint64_t seq = 0;
    int32_t kind = 0, si = 0, index = -1;
    float kp[kRow] = {};
  };

  struct PasteJob {
    std::vector<float> crop;
    bool hasCrop = false;
    int32_t kind = 0, si = 0, index = -1;
    float kp[kRow] = {};
    uint64_t gen = 0;
    double enqueuedMs = 0;
  };

  xj_utt(xj_ctx* ctx, const xj_utt_opts& o);
  ~xj_utt();

  // ---- fixed at creation
  xj_ctx* ctx;
  std::string motionDir, ep, steadyModel;
  int32_t threads, eager, rampEnd, rampInterrupt;
  double gapMs;
  bool hybrid = false;
  int mode = 0;  // 1: xj_a2x, 0: xj_motion
  bool pipePaste = false;
  std::vector<float> targetKp;
  int32_t NT, W, H;

  // ---- guarded by mu
  std::mutex mu;
  std::condition_variable cv;
  std::vector<float> audio;
  bool endAsked = false;
  uint64_t gen = 0;
  bool stop = false;
  double lastPushMs = 0, firstPushMs = 0;
  bool pushSeen = false;
  void* model = nullptr;
  bool warmDone = false, warmFailed = false;
  std::string warmError;
  Slot ring[kRing];
  uint64_t ringHead = 0, ringTail = 0, nextSeq = 0;
  xj_utt_stats stats{};
  uint64_t renderFailCount = 0;
  std::string renderFailText;
  bool renderFatal = false;
  bool pulledAny = false;
  int32_t pulledKind = 0, pulledSi = 0;
  float pulledKp[kRow] = {};
  std::deque<PasteJob> pasteQ;
  int pasteInHand = 0;  // a job taken off pasteQ and not yet published or dropped
  std::condition_variable pasteCv;
  bool pasteStop = false;
  double stageASum = 0, stageAWaitSum = 0, stageBSum = 0, stageCSum = 0, pasteThreadSum = 0, deliverSum = 0,
         queueWait = 0;
  long long speechCount = 0, jobsB = 0, jobsC = 0, deliverCount = 0;

  // ---- owned by the main thread
  uint64_t seenGen = 0;
  std::atomic<int> state{0};
  int32_t idleSi = 0, driveDir = 1, onsetSi = -1;
  bool inUtt = false, ended = false, spoke = false;
  int32_t speechIndex = 0;
  double uttStartMs = 0;
  int32_t rampLeft = 0, rampLen = 0;
  float rampDelta[kRow] = {}, lastKp[kRow] = {};
  int32_t lastSi = 0;
  bool jobInFlight = false, needReset = false, finishSent = false;
  uint64_t jobGen = 0;
  int32_t collected = 0, modelAvail = 0, modelTotal = -1, hiMode = 0, lastEager = -1;
  std::vector<float> pendAudio;
  int32_t qHead = 0, qTail = 0;
  int32_t qSi[kQueue] = {};
  float qXs[kQueue * kRow] = {}, qXd[kQueue * kRow] = {};
  std::unique_ptr<xj::Renderer> chunk;

  // ---- the job block, guarded by dispatchMu
  std::mutex dispatchMu;
  std::condition_variable dispatchCv;
  bool jobPending = false, jobDone = false, dispatchStop = false;
  void* jobModel = nullptr;
  std::vector<float> jobAudio;
  bool jobReset = false, jobFinish = false;
  int32_t jobStart = 0, jobDir = 1, jobEager = 0, jobMaxPull = 0;
  int32_t outPulled = 0, outLeft = 0, outTotal = -1;
  int32_t outSi[kQueue] = {};
  float outXs[kQueue * kRow] = {}, outXd[kQueue * kRow] = {};

  std::thread mainThread, warmThread, dispatchThread, pasteThread;

  // ---- the work
  void run();
  bool tick();
  void warm();
  void dispatchLoop();
  void pasteLoop();
  bool collectJob();
  void submitJob(int eagerNow);
  void handleInterrupt();
  void renderSpeech(int n);
  void produceRamp();
  void startRamp(int s, const float* kp, int n);
  bool emitIdle();
  bool enqueue(const float* crop, int kind, int si, int index, const float* kp, double* wait);
  bool enqueueRaw(const float* crop, int kind, int si, int index, const float* kp, double* wait);
  bool enqueuePipe(const float* crop, int kind, int si, int index, const float* kp, double* wait);
  bool pasteInto(const float* crop, int kind, int si, int index, const float* kp, uint64_t jobGen, double enqueuedMs,
                 double* wait);
  void noteRenderFail(const char* site, const std::string& text, bool fatal);
  void printStageReport();
  int queued() const { return qTail - qHead; }

  // The audio model's calls, by mode.
  void modelReset(void* m, int start, int dir);
  void modelSetEager(void* m, int e);
  void modelPush(void* m, const float* pcm, int n);
  void modelFinish(void* m);
  int modelAvailNow(void* m);
  int modelPull(void* m, int32_t* rows, float* xs, float* xd, int n);
  int modelTotalNow(void* m);
  void modelDestroy(void* m);
};
