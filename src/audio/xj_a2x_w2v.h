// The speech encoders shared by every xj_a2x handle of the process: the 8 s
// window, the short-window pair (trunk and head), the GPU owner thread, and
// the cached encoding of silence. Opened once, never released before exit.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "render/xj_ort.h"

namespace xj::a2x {

constexpr int kW8Samples = 128000;  // the 8 s window
constexpr int kWinSamples = 32000;  // the 2 s window of the trunk
constexpr int kFeatFloats = 9216;   // one feature frame: 12 layers of 768
constexpr int kZeroEmbFloats = 12 * 200 * 768;

// Runs job here, or on the one thread that owns GPU-placed sessions when
// XJ_A2X_CUDA is "1". An exception in the job is rethrown here.
void onOwnerThread(const std::function<void()>& job);

// Appends the CUDA provider for label "w2v" when XJ_A2X_CUDA is "1"; a failed
// append is printed and the session stays on the CPU.
void maybeCuda(Ort::SessionOptions& options, const char* label);

// Opens one session; a float16 Gelu fusion failure reopens once at the basic level.
std::unique_ptr<Ort::Session> openSession(Ort::Env& env, const std::string& path, Ort::SessionOptions& options);

// The 8 s session, opened on first use; the first path wins.
Ort::Session* sharedW2v(const std::string& path, int threads);

// The short-window pair, looked for once per process. True when it stands.
bool sharedW2vWin(int threads, const std::string& w2vPath);

struct WinPair {
  Ort::Session* trunk;
  Ort::Session* head;
  const char* trunkOut;
};
// The pair, valid after sharedW2vWin returned true.
WinPair winPair();
// The trunk's time steps; 0 until known.
int winLT();
void setWinLT(int lt);

// The 8 s encoder's output for 8 s of silence, [12][200][768], computed once.
const std::vector<float>& zeroEmbedding(Ort::Session& w2v8);

// Size of a file, -1 for an empty path or an unreadable file.
long long fileBytes(const std::string& path);

}  // namespace xj::a2x
