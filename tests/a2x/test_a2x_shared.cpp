// Process-wide behaviour of the speech encoders. Each case runs this program
// again in a fresh process (the encoders are looked for once per process) with
// one child test selected, and reads what it printed.
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <thread>

#include "a2x_testutil.h"
#include "audio/xj_a2x.h"
#include "audio/xj_a2x_w2v.h"

namespace {

const std::string kFx = xjtest::fixturesDir();
const char kEm[] = "\xE2\x80\x94";

bool inChild() { return std::getenv("XJ_A2X_CHILD") != nullptr; }

// Runs child test `name` in a new process with `env` ("A=1 B=2 ...", values
// without blanks; "-U NAME" unsets); returns everything it printed.
std::string child(const std::string& name, const std::string& env) {
  const std::string cmd = "env -u W2V_ONNX -u XJ_A2X_W2V_WIN_ONNX -u XJ_A2X_W2V_HEAD_ONNX -u XJ_A2X_CUDA XJ_A2X_CHILD=1 " +
                          env + " /proc/" + std::to_string(getpid()) + "/exe --gtest_filter=A2xChild." + name +
                          " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) throw std::runtime_error("popen failed");
  std::string out;
  char buf[4096];
  size_t k;
  while ((k = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, k);
  pclose(p);
  return out;
}

bool has(const std::string& text, const std::string& line) { return text.find(line) != std::string::npos; }

std::string notDeployed(const std::string& w2v) {
  return "[xj_a2x] short-window audio frontend NOT DEPLOYED on this plane: neither "
         "XJ_A2X_W2V_WIN_ONNX/XJ_A2X_W2V_HEAD_ONNX are set nor is the pair beside $W2V_ONNX (" +
         w2v + ") as audio_encoder_fp16_window_{trunk,head}.onnx (legacy w2v_trunk32.onnx/w2v_head32.onnx). Serving "
               "the LEGACY 8s window " + kEm +
         " same reference quality, 2.8-3.9x the audio hop cost. Ship the pair beside the encoder "
         "(tools/export_w2v_window).\n";
}

std::string loaded(const std::string& lt, const std::string& trunk, const std::string& head) {
  return "[xj_a2x] short-window w2v frontend loaded (LT=" + lt + ") trunk=" + trunk + " (" +
         std::to_string(xj::a2x::fileBytes(trunk)) + " B) head=" + head + " (" +
         std::to_string(xj::a2x::fileBytes(head)) + " B)\n";
}

void printCreate(const char* bundle) {
  xj_a2x* h = xj_a2x_create(bundle, 1);
  if (h) std::printf("create ok short=%d width=%d nt=%d\n", h->short_window ? 1 : 0, xj_a2x_width(h), xj_a2x_nt(h));
  else std::printf("create failed: %s\n", xj_a2x_last_error());
  std::fflush(stdout);
  xj_a2x_destroy(h);
}

}  // namespace

// ---- the children ---------------------------------------------------------

TEST(A2xChild, Create) {
  if (!inChild()) GTEST_SKIP();
  const char* b = std::getenv("XJ_CHILD_BUNDLE");
  printCreate(b ? b : (kFx + "/a2x").c_str());
}

TEST(A2xChild, TwoPaths) {
  if (!inChild()) GTEST_SKIP();
  printCreate((kFx + "/a2x").c_str());
  setenv("W2V_ONNX", "/nonexistent/w2v8.onnx", 1);
  printCreate((kFx + "/a2x").c_str());
}

TEST(A2xChild, OwnerRethrows) {
  if (!inChild()) GTEST_SKIP();
  const auto caller = std::this_thread::get_id();
  std::thread::id ran;
  try {
    xj::a2x::onOwnerThread([&] {
      ran = std::this_thread::get_id();
      throw std::runtime_error("job failed: 42");
    });
    std::printf("no exception\n");
  } catch (const std::runtime_error& e) {
    std::printf("caught '%s' %s\n", e.what(), ran == caller ? "on the caller" : "on another thread");
  }
  // A job may call back into the owner path: it runs in place.
  int depth = 0;
  xj::a2x::onOwnerThread([&] { xj::a2x::onOwnerThread([&] { depth = 2; }); });
  std::printf("nested %d\n", depth);
}

TEST(A2xChild, Preload) {
  if (!inChild()) GTEST_SKIP();
  const char* p = std::getenv("XJ_CHILD_PRELOAD");
  const int r = xj_a2x_preload_w2v(p);
  std::printf("preload %d '%s'\n", r, xj_a2x_last_error());
}

TEST(A2xChild, PrimedUtterances) {
  if (!inChild()) GTEST_SKIP();
  xj_a2x* h = xj_a2x_create((kFx + "/a2x_prime").c_str(), 1);
  if (!h) {
    std::printf("create failed: %s\n", xj_a2x_last_error());
    return;
  }
  const std::vector<float> audio = a2xtest::speech(16000, 2);
  a2xtest::Frames f[2];
  for (auto& fr : f) {
    xj_a2x_reset(h, 0, 1, 1);
    xj_a2x_push(h, audio.data(), static_cast<int>(audio.size()));
    xj_a2x_finish(h);
    a2xtest::settle(h);
    a2xtest::drain(h, fr);
  }
  std::printf("primed %zu %zu, same %d, first xd %.9g\n", h->prime_prev.size(), h->prime_state.size(),
              f[0].xd == f[1].xd ? 1 : 0, f[0].xd.empty() ? 0.0 : f[0].xd[0]);
  xj_a2x_destroy(h);
}

// ---- the cases -------------------------------------------------------------

TEST(A2xShared, PairBesideTheEncoderIsFoundOnce) {
  const std::string dir = kFx + "/w2v_pair";
  const std::string out = child("Create", "W2V_ONNX=" + dir + "/w2v8.onnx");
  EXPECT_TRUE(has(out, loaded("400", dir + "/audio_encoder_fp16_window_trunk.onnx",
                              dir + "/audio_encoder_fp16_window_head.onnx")))
      << out;
  EXPECT_TRUE(has(out, "[xj_a2x] live cadence: block-320 (one trunk window per 8 frames), push-size invariant, threads=1\n"))
      << out;
  EXPECT_TRUE(has(out, "create ok short=1 width=1 nt=7\n")) << out;
}

TEST(A2xShared, LegacyNamesAndTimeStepsFromTheFirstRun) {
  const std::string dir = kFx + "/w2v_legacy";
  const std::string out = child("Create", "W2V_ONNX=" + dir + "/w2v8.onnx");
  EXPECT_TRUE(has(out, loaded("from-first-run", dir + "/w2v_trunk32.onnx", dir + "/w2v_head32.onnx"))) << out;
  EXPECT_TRUE(has(out, "create ok short=1")) << out;
}

TEST(A2xShared, HalfAPairIsNoPair) {
  // Only the trunk under the new names: the legacy pair beside it serves.
  const std::string dir = kFx + "/w2v_half";
  const std::string out = child("Create", "W2V_ONNX=" + dir + "/w2v8.onnx");
  EXPECT_TRUE(has(out, loaded("400", dir + "/w2v_trunk32.onnx", dir + "/w2v_head32.onnx"))) << out;
}

TEST(A2xShared, WithoutThePairThe8sWindowServes) {
  const std::string w2v = kFx + "/w2v_only/w2v8.onnx";
  const std::string out = child("Create", "W2V_ONNX=" + w2v);
  EXPECT_TRUE(has(out, notDeployed(w2v))) << out;
  EXPECT_TRUE(has(out, "create ok short=0 width=1 nt=7\n")) << out;
  // One of the two variables alone is ignored, and the search runs.
  const std::string one = child("Create", "W2V_ONNX=" + w2v + " XJ_A2X_W2V_WIN_ONNX=" + kFx + "/w2v_pair/audio_encoder_fp16_window_trunk.onnx");
  EXPECT_TRUE(has(one, notDeployed(w2v))) << one;
}

TEST(A2xShared, BothVariablesNameThePairAsTheyStand) {
  const std::string trunk = kFx + "/w2v_legacy/w2v_trunk32.onnx", head = kFx + "/w2v_pair/audio_encoder_fp16_window_head.onnx";
  const std::string out = child("Create", "W2V_ONNX=" + kFx + "/w2v_only/w2v8.onnx XJ_A2X_W2V_WIN_ONNX=" + trunk +
                                              " XJ_A2X_W2V_HEAD_ONNX=" + head);
  EXPECT_TRUE(has(out, loaded("from-first-run", trunk, head))) << out;
}

TEST(A2xShared, TwoPathsShareTheFirstSession) {
  const std::string out = child("TwoPaths", "W2V_ONNX=" + kFx + "/w2v_only/w2v8.onnx");
  EXPECT_TRUE(has(out, "create ok short=0 width=1 nt=7\ncreate ok short=0 width=1 nt=7\n")) << out;
}

TEST(A2xShared, AMissingEncoderFailsTheCreate) {
  const std::string out = child("Create", "W2V_ONNX=/nonexistent/w2v8.onnx");
  EXPECT_TRUE(has(out, notDeployed("/nonexistent/w2v8.onnx"))) << out;
  EXPECT_TRUE(has(out, "create failed: xj_a2x_create: ")) << out;
  EXPECT_TRUE(has(out, "/nonexistent/w2v8.onnx")) << out;
}

TEST(A2xShared, GpuRequestFallsBackToTheCpuOnTheOwnerThread) {
  // This runtime has no CUDA provider: the append fails, is said, and the
  // encoders run on the CPU, on the owner thread.
  const std::string out = child("Create", "W2V_ONNX=" + kFx + "/w2v_pair/w2v8.onnx XJ_A2X_CUDA=1 XJ_A2X_CUDA_MEM_MIB=-4");
  EXPECT_TRUE(has(out, "[xj_a2x] CUDA EP append failed (w2v): ")) << out;
  EXPECT_TRUE(has(out, " -- falling back to CPU\n")) << out;
  EXPECT_TRUE(has(out, "create ok short=1")) << out;
  for (const char* off : {"0", "true", "\"\""}) {
    const std::string o = child("Create", "W2V_ONNX=" + kFx + "/w2v_pair/w2v8.onnx XJ_A2X_CUDA=" + off);
    EXPECT_FALSE(has(o, "CUDA EP")) << off << ": " << o;
    EXPECT_TRUE(has(o, "create ok short=1")) << o;
  }
}

TEST(A2xShared, OwnerThreadCarriesExceptionsBack) {
  const std::string on = child("OwnerRethrows", "XJ_A2X_CUDA=1");
  EXPECT_TRUE(has(on, "caught 'job failed: 42' on another thread\nnested 2\n")) << on;
  const std::string off = child("OwnerRethrows", "XJ_A2X_CUDA=0");
  EXPECT_TRUE(has(off, "caught 'job failed: 42' on the caller\nnested 2\n")) << off;
}

TEST(A2xShared, Preload) {
  const std::string ok = child("Preload", "W2V_ONNX=" + kFx + "/w2v_only/w2v8.onnx");
  EXPECT_TRUE(has(ok, "preload 1 ''")) << ok;
  const std::string bad = child("Preload", "XJ_CHILD_PRELOAD=/nonexistent.onnx");
  EXPECT_TRUE(has(bad, "preload 0 'xj_a2x_preload_w2v: ")) << bad;
}

TEST(A2xShared, WidthIsTheGraphs) {
  const std::string out =
      child("Create", "W2V_ONNX=" + kFx + "/w2v_only/w2v8.onnx XJ_CHILD_BUNDLE=" + kFx + "/a2x_narrow");
  EXPECT_TRUE(has(out, std::string("[xj_a2x] WARNING: a2x_meta width=1 but the encoder declares 1 output(s) ") + kEm +
                           " serving the GRAPH (width=0). Repackage this bundle.\n"))
      << out;
  EXPECT_TRUE(has(out, "create ok short=0 width=0 nt=1\n")) << out;
}

TEST(A2xShared, SilencePrime) {
  // The meta asks for 500 frames; the silence encoding has 200. Every utterance
  // starts from the primed state, so two of them agree.
  const std::string w2v = "W2V_ONNX=" + kFx + "/w2v_pair/w2v8.onnx";
  const std::string primed = child("PrimedUtterances", w2v);
  EXPECT_TRUE(has(primed, "[xj_a2x] silence-primed AR state cached (200 frames)\n")) << primed;
  EXPECT_TRUE(has(primed, "primed 63 16, same 1")) << primed;
  const std::string off = child("PrimedUtterances", w2v + " XJ_A2X_SILENCE_PRIME=0");
  EXPECT_FALSE(has(off, "silence-primed")) << off;
  EXPECT_TRUE(has(off, "primed 0 0, same 1")) << off;
  // The primed start state changes the rows.
  const auto firstXd = [](const std::string& s) { return s.substr(s.find("first xd ")); };
  EXPECT_NE(firstXd(primed), firstXd(off));
}
