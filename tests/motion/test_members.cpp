// What a motion directory must hold, and what the C surface says when it is
// handed something it cannot use. Messages are compared byte for byte.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "audio/xj_motion_net.h"
#include "motion_util.h"

using namespace motiontest;

namespace {

std::string meta(const std::string& body) { return "{" + body + "}"; }

const char* kMetaRest = "\"n_emo\": 3, \"s_bridge\": 1.5, \"delta_pitch\": 2.5";

struct Refusal {
  const char* name;
  std::function<void(const MotionCopy&)> mutate;
  std::string message;  // "$" stands for the directory
  const char* ep = nullptr;
};

void resize(const MotionCopy& c, const std::string& member, size_t floats) {
  auto v = readF32(c.member(member));
  v.resize(floats, 0.25f);
  writeF32(c.member(member), v);
}

void remove(const MotionCopy& c, const std::string& member) { std::remove(c.member(member).c_str()); }

void copyGraph(const MotionCopy& c, const std::string& variant, const std::string& member) {
  xjtest::writeFile(c.member(member), xjtest::readFile(graphVariant(variant)));
}

std::string expand(const std::string& message, const std::string& dir) {
  std::string out;
  for (char ch : message) {
    if (ch == '$') out += dir;
    else out += ch;
  }
  return out;
}

}  // namespace

TEST(MotionMembers, RefusalsNameWhatIsWrong) {
  const std::vector<Refusal> cases = {
      {"no meta", [](const MotionCopy& c) { remove(c, "meta.json"); }, "cannot open $/meta.json"},
      {"missing key",
       [](const MotionCopy& c) {
         xjtest::writeFile(c.member("meta.json"), meta("\"nt\": 5, \"n_src\": 5, \"n_emo\": 3"));
       },
       "meta.json: missing s_bridge"},
      {"key without colon",
       [](const MotionCopy& c) {
         xjtest::writeFile(c.member("meta.json"),
                           meta("\"nt\": 5, \"n_src\": 5, \"n_emo\": 3, \"s_bridge\": 1.5, \"delta_pitch\""));
       },
       "meta.json: bad delta_pitch"},
      {"n_src differs",
       [](const MotionCopy& c) {
         xjtest::writeFile(c.member("meta.json"), meta(std::string("\"nt\": 5, \"n_src\": 4, ") + kMetaRest));
       },
       "xj_motion: n_src != nt unsupported"},
      {"nt zero",
       [](const MotionCopy& c) {
         xjtest::writeFile(c.member("meta.json"), meta(std::string("\"nt\": 0, \"n_src\": 0, ") + kMetaRest));
       },
       "meta.json: bad nt (a whole number from 1 on is needed)"},
      {"emo short", [](const MotionCopy& c) { resize(c, "emo.bin", 23); }, "$/emo.bin: 23 floats, expected 24"},
      {"emo for fewer rows",
       [](const MotionCopy& c) {
         xjtest::writeFile(c.member("meta.json"),
                           meta("\"nt\": 5, \"n_src\": 5, \"n_emo\": 4, \"s_bridge\": 1.5"));
       },
       "$/emo.bin: 24 floats, expected 32"},
      {"no ch_sc", [](const MotionCopy& c) { remove(c, "ch_sc.bin"); }, "cannot open $/ch_sc.bin"},
      {"binmat long", [](const MotionCopy& c) { resize(c, "hubert_stft_binmat.bin", 20561); },
       "$/hubert_stft_binmat.bin: 20561 floats, expected 20560"},
      {"bounds short", [](const MotionCopy& c) { resize(c, "v_min_max.bin", 265); },
       "$/v_min_max.bin: 265 floats, expected 530"},
      {"one pose record short", [](const MotionCopy& c) { resize(c, "src_xs_info.bin", 4 * 328); },
       "$/src_xs_info.bin: 1312 floats, expected 1640"},
      {"no target rows", [](const MotionCopy& c) { remove(c, "xs_target.bin"); }, "cannot open $/xs_target.bin"},
      {"no generator", [](const MotionCopy& c) { remove(c, "lmdm.onnx"); }, "cannot open $/lmdm.onnx"},
      {"student of 20 frames", [](const MotionCopy& c) { copyGraph(c, "student_short.onnx", "hubert_student.onnx"); },
       "xj_motion: $/hubert_student.onnx: input 'mel' declares 1600 floats, the model feeds it 1680"},
      {"stitch with one input", [](const MotionCopy& c) { copyGraph(c, "student_dynbatch.onnx", "stitch.onnx"); },
       "xj_motion: $/stitch.onnx declares 1 inputs, expected 2 (a, then b)"},
      {"unknown ep", [](const MotionCopy&) {}, "xj_motion: unknown ep 'cuda'", "cuda"},
      {"zero source scale",
       [](const MotionCopy& c) {
         auto v = readF32(c.member("src_xs_info.bin"));
         v[258] = 0.0f;
         writeF32(c.member("src_xs_info.bin"), v);
       },
       "xj_motion: $/src_xs_info.bin: the first record's scale is 0, so the lip gain ch/src is not finite"},
  };
  for (const auto& rc : cases) {
    MotionCopy copy;
    rc.mutate(copy);
    Motion h(copy.dir, 1, rc.ep);
    EXPECT_EQ(h.m, nullptr) << rc.name;
    EXPECT_EQ(h.error, "xj_motion_create: " + expand(rc.message, copy.dir)) << rc.name;
  }
}

TEST(MotionMembers, CoremlIsRefusedWhereThePlatformLacksIt) {
  for (const char* ep : {"coreml", "coreml:ane"}) {
    Motion h(motionDir(), 1, ep);
    ASSERT_EQ(h.m, nullptr) << ep;
    const std::string prefix =
        "xj_motion_create: xj_motion: ep '" + std::string(ep) + "': the CoreML provider is not available here: ";
    EXPECT_EQ(h.error.compare(0, prefix.size(), prefix), 0) << h.error;
    EXPECT_GT(h.error.size(), prefix.size()) << "the runtime's own reason is kept";
  }
}

TEST(MotionMembers, CoremlUnitsComeFromTheEighthCharacter) {
  const struct {
    const char* ep;
    const char* units;
  } cases[] = {
      {"coreml", "ALL"},        {"coreml:", "ALL"},      {"coreml:cpu", "CPUOnly"},
      {"coreml_gpu", "CPUAndGPU"}, {"coremlXane", "CPUAndNeuralEngine"}, {"coreml:cpux", "ALL"},
      {"coremlcpu", "ALL"},     {"coreml:CPU", "ALL"},
  };
  for (const auto& c : cases) EXPECT_STREQ(xj::motion::coremlComputeUnits(c.ep), c.units) << c.ep;
}

TEST(MotionMembers, MetaNumbersAreReadBehindTheFirstColon) {
  using xj::motion::jsonNum;
  EXPECT_EQ(jsonNum("{\"nt\" : 12, \"x\": 3}", "nt", true), 12.0);
  // The first ':' behind the key is the one read, wherever it is.
  EXPECT_EQ(jsonNum("{\"s_bridge\" \"y\": -0.5e1}", "s_bridge", true), -5.0);
  EXPECT_EQ(jsonNum("{\"nt\": 1}", "delta_pitch", false, 0.0), 0.0);
  EXPECT_EQ(jsonNum("{\"delta_pitch\":3.25}", "delta_pitch", false, 0.0), 3.25);
}

TEST(MotionMembers, TargetRowsAnswerToTheirCanonicalName) {
  MotionCopy copy;
  std::rename(copy.member("xs_target.bin").c_str(), copy.member("target_keypoints.bin").c_str());
  Motion h(copy.dir);
  ASSERT_NE(h.m, nullptr) << h.error;
  EXPECT_EQ(xj_motion_nt(h.m), 5);
}

TEST(MotionMembers, ADynamicDimensionCountsAsOne) {
  MotionCopy copy;
  copyGraph(copy, "student_dynbatch.onnx", "hubert_student.onnx");
  Motion a(copy.dir), b(motionDir());
  ASSERT_NE(a.m, nullptr) << a.error;
  ASSERT_NE(b.m, nullptr) << b.error;
  const auto audio = speech(16000 * 4, 2);
  const Frames fa = utterance(a.m, audio, 4000, 0, true), fb = utterance(b.m, audio, 4000, 0, true);
  ASSERT_EQ(fa.count(), 100);
  EXPECT_EQ(fa.xd, fb.xd);
}

TEST(MotionMembers, ArgumentFaultsAndErrorsPerThread) {
  EXPECT_EQ(xj_motion_create(nullptr, 1, nullptr), nullptr);
  EXPECT_STREQ(xj_motion_last_error(), "xj_motion_create: NULL motion_dir");
  xj_motion_destroy(nullptr);
  xj_motion_reset(nullptr, 0, 1, 0);
  xj_motion_set_eager(nullptr, 1);
  xj_motion_finish(nullptr);
  EXPECT_EQ(xj_motion_nt(nullptr), 0);
  EXPECT_EQ(xj_motion_total(nullptr), -1);

  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  float s[4] = {0, 0, 0, 0};
  float xs[63], xd[63];
  int rows[1];
  const struct {
    const char* name;
    std::function<int()> call;
    const char* message;
  } faults[] = {
      {"push null handle", [&] { return xj_motion_push(nullptr, s, 4); }, "xj_motion_push: bad args / already finished"},
      {"push null samples", [&] { return xj_motion_push(h.m, nullptr, 4); },
       "xj_motion_push: bad args / already finished"},
      {"push negative", [&] { return xj_motion_push(h.m, s, -1); }, "xj_motion_push: bad args / already finished"},
      {"pull null handle", [&] { return xj_motion_pull(nullptr, rows, xs, xd, 1); }, "xj_motion_pull: bad args"},
      {"pull null xs", [&] { return xj_motion_pull(h.m, rows, nullptr, xd, 1); }, "xj_motion_pull: bad args"},
      {"pull null xd", [&] { return xj_motion_pull(h.m, rows, xs, nullptr, 1); }, "xj_motion_pull: bad args"},
      {"pull none", [&] { return xj_motion_pull(h.m, rows, xs, xd, 0); }, "xj_motion_pull: bad args"},
      {"avail null handle", [&] { return xj_motion_avail(nullptr); }, "xj_motion_avail: bad args"},
  };
  for (const auto& f : faults) {
    EXPECT_EQ(f.call(), 0) << f.name;
    EXPECT_STREQ(xj_motion_last_error(), f.message) << f.name;
  }
  // An entry point clears the text; another thread never sees this one's.
  EXPECT_EQ(xj_motion_push(h.m, nullptr, 4), 0);
  std::string other = "unset";
  std::thread([&] { other = xj_motion_last_error(); }).join();
  EXPECT_EQ(other, "");
  EXPECT_EQ(xj_motion_push(h.m, s, 4), 1);
  EXPECT_STREQ(xj_motion_last_error(), "");

  xj_motion_finish(h.m);
  EXPECT_EQ(xj_motion_push(h.m, s, 4), 0);
  EXPECT_STREQ(xj_motion_last_error(), "xj_motion_push: bad args / already finished");
}
