// The tool's refusals: the message, the exit code, and nothing left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tool_testutil.h"
#include "xj_testutil.h"

namespace {

using tooltest::listDir;

struct Case {
  const char* name;
  // Arguments after "render"; {T} is the scratch folder, {B} a usable bundle, {A} a usable sound file.
  std::vector<std::string> args;
  int status;
  const char* message;  // the whole of stderr, {T} as above; or null and
  const char* prefix = "";  // what the last line of stderr starts with (the library's refusal follows;
                            // the library's own diagnostics may come before it)
};

std::string fill(std::string s, const std::string& t, const std::string& b, const std::string& a) {
  for (auto [key, value] : {std::pair<std::string, std::string>{"{T}", t}, {"{B}", b}, {"{A}", a}}) {
    for (size_t at; (at = s.find(key)) != std::string::npos;) s.replace(at, key.size(), value);
  }
  return s;
}

std::string lastLine(const std::string& text) {
  const std::string t = text.empty() || text.back() != '\n' ? text : text.substr(0, text.size() - 1);
  const size_t nl = t.find_last_of('\n');
  return nl == std::string::npos ? t : t.substr(nl + 1);
}

TEST(ToolRefusals, RenderRefusesBadInputAndLeavesNoFile) {
  if (!tooltest::haveTool()) GTEST_SKIP() << "built without the xj tool";
  const std::vector<Case> cases = {
      {"missing bundle", {"--bundle", "{T}/no_bundle", "--audio", "{A}", "--out", "{T}/out/o.mp4"}, 1,
       "xj render: no such bundle: {T}/no_bundle\n"},
      {"unreadable audio", {"--bundle", "{B}", "--audio", "{T}/noise.wav", "--out", "{T}/out/o.mp4"}, 1,
       "xj render: cannot read audio {T}/noise.wav: Invalid data found when processing input\n"},
      {"missing audio", {"--bundle", "{B}", "--audio", "{T}/none.wav", "--out", "{T}/out/o.mp4"}, 1,
       "xj render: cannot read audio {T}/none.wav: No such file or directory\n"},
      {"output folder missing", {"--bundle", "{B}", "--audio", "{A}", "--out", "{T}/out/missing/o.mp4"}, 1,
       "xj render: cannot write {T}/out/missing/o.mp4: no such folder {T}/out/missing\n"},
      {"output is a folder", {"--bundle", "{B}", "--audio", "{A}", "--out", "{T}/out"}, 1,
       "xj render: cannot write {T}/out: it is a folder\n"},
      {"bundle without a manifest", {"--bundle", "{T}/out", "--audio", "{A}", "--out", "{T}/out/o.mp4"}, 1,
       "xj render: xj_create: cannot open {T}/out/manifest.json\n"},
      {"batch without fca_stream.onnx",
       {"--batch", "--bundle", "{T}/basic", "--audio", "{A}", "--out", "{T}/out/o.mp4", "--encoder", "{T}/w2v8.onnx"},
       1, nullptr, "xj render: xj_fca_create: "},
      {"no lead-in frame", {"--bundle", "{B}", "--audio", "{A}", "--out", "{T}/out/o.mp4", "--lead", "0"}, 2,
       nullptr},
      {"audio missing", {"--bundle", "{B}", "--out", "{T}/out/o.mp4"}, 2, nullptr},
  };
  xjtest::TempDir t;
  xjtest::writeFile(t / "noise.wav", "RIFF, but not really a sound file at all");
  ASSERT_EQ(mkdir((t / "out").c_str(), 0755), 0);
  xjtest::writeFile(t / "out/.keep", "");
  const std::string bundle = xjtest::fixture("live"), audio = xjtest::fixture("clips/audio.wav");
  xjtest::copyTree(xjtest::fixture("basic"), t / "basic");
  xjtest::writeFile(t / "w2v8.onnx", xjtest::readFile(xjtest::fixture("w2v_pair/w2v8.onnx")));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args{"render"};
    for (const std::string& a : c.args) args.push_back(fill(a, t.path(), bundle, audio));
    const tooltest::Run r = tooltest::xj(args, t.path());
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.message) EXPECT_EQ(r.err, fill(c.message, t.path(), bundle, audio));
    else if (c.status == 1) EXPECT_EQ(lastLine(r.err).rfind(c.prefix, 0), 0u) << r.err;
    else EXPECT_EQ(r.err.rfind("usage: xj render --bundle B --audio FILE --out OUT.mp4", 0), 0u) << r.err;
    EXPECT_EQ(listDir(t / "out"), std::vector<std::string>{".keep"});
  }
}

TEST(ToolRefusals, InfoNamesWhatIsRefused) {
  if (!tooltest::haveTool()) GTEST_SKIP() << "built without the xj tool";
  xjtest::TempDir t;
  const xjtest::ScopedEnv w2v("W2V_ONNX", xjtest::fixture("w2v_pair/w2v8.onnx").c_str());
  const tooltest::Run good = tooltest::xj({"info", xjtest::fixture("live")}, t.path());
  EXPECT_EQ(good.status, 0) << good.out << good.err;
  EXPECT_NE(good.out.find("  P.f16                                  found as P.f16\n"), std::string::npos) << good.out;
  EXPECT_NE(good.out.find("  live session: xj_a2x (a2x_enc_stream.onnx is present)\n"), std::string::npos);
  EXPECT_NE(good.out.find("  b4           loads and renders\n"), std::string::npos) << good.out;
  EXPECT_NE(good.out.find("\nthe bundle loads\n"), std::string::npos) << good.out;

  // A director of 20 keypoint rows is refused at load, in the library's words.
  xjtest::copyTree(xjtest::fixture("basic"), t / "b");
  const tooltest::Run some = tooltest::xj({"info", t / "b"}, t.path());
  EXPECT_EQ(some.status, 1);
  EXPECT_NE(some.out.find("  model r20: xj_render_kp_crop: Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + (t / "b") +
                          "/model_r20.onnx"),
            std::string::npos)
      << some.out;
  EXPECT_NE(some.out.find("  b1           loads and renders\n"), std::string::npos) << some.out;

  // Without its warp prior no director loads.
  std::remove((t / "b/P.f16").c_str());
  const tooltest::Run bad = tooltest::xj({"info", t / "b"}, t.path());
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.out.find("  P.f16                                  absent (nor as source_frames.f16)\n"),
            std::string::npos)
      << bad.out;
  EXPECT_EQ(bad.out.find("loads and renders"), std::string::npos) << bad.out;

  const tooltest::Run none = tooltest::xj({"info", t / "nothing"}, t.path());
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "xj info: no such bundle: " + (t / "nothing") + "\n");
}

}  // namespace
