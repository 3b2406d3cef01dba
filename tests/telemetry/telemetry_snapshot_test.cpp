// What a snapshot holds and in which order, how numbers and strings are
// written, and that every snapshot is strict JSON.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tel_testutil.h"
#include "telemetry/xj_telemetry.h"
#include "xj/xj.h"

namespace {

using teltest::inFreshProcess;

// "key=n:text" for a number, "key=s:text" for a string: members compare as text.
std::vector<std::string> describe(const std::vector<std::pair<std::string, tjson::Value>>& members) {
  std::vector<std::string> out;
  for (const auto& [key, v] : members) {
    const char* kind = v.kind == tjson::Value::Kind::Number ? "n" : v.kind == tjson::Value::Kind::String ? "s" : "?";
    out.push_back(key + "=" + kind + ":" + v.text);
  }
  return out;
}

// A snapshot taken now, checked in full; returns its variable members and extra.
struct Taken {
  std::vector<std::string> top;
  std::string deviceModel;
  std::vector<std::string> extra;
};

Taken take() {
  const long long lo = static_cast<long long>(std::time(nullptr));
  long long queued = -1;
  tjson::Value snap = teltest::pendingSnapshot(&queued);
  const long long hi = static_cast<long long>(std::time(nullptr));
  Taken t;
  t.top = describe(teltest::checkFixedMembers(snap, lo, hi));
  if (const tjson::Value* dm = snap.find("device_model")) t.deviceModel = dm->text;
  if (const tjson::Value* ex = snap.find("extra")) t.extra = describe(ex->members);
  EXPECT_EQ(queued, 0) << "nothing was flushed";

  // The C++ entry gives the same snapshot; the clock may have ticked in between.
  tjson::Value viaCpp = tjson::parse(xj::tel::snapshot_json());
  EXPECT_EQ(describe(viaCpp.members).size(), snap.members.size());
  if (viaCpp.members.size() == snap.members.size()) {
    for (size_t i = 1; i < snap.members.size(); ++i)
      EXPECT_EQ(describe({viaCpp.members[i]}), describe({snap.members[i]}));
  }
  return t;
}

struct OrderCase {
  const char* name;
  void (*record)();
  std::vector<std::string> top;
  std::string deviceModel;
  std::vector<std::string> extra;
};

const OrderCase kOrderCases[] = {
    {"nothing recorded", [] {}, {}, "", {}},
    {"known number goes to the top", [] { xj_tel_record("fps_ema", 29.5); }, {"fps_ema=n:29.5"}, "", {}},
    {"other number goes to extra", [] { xj_tel_record("foo", 1); }, {}, "", {"foo=n:1"}},
    {"known numbers in their fixed order",
     [] {
       xj_tel_record("thermal_state", 2);
       xj_tel_record("load_ms", 812.25);
       xj_tel_record("session_s", 61);
       xj_tel_record("frames_total", 1500);
       xj_tel_record("fps_ema", 30.0);
     },
     {"fps_ema=n:30", "frames_total=n:1500", "session_s=n:61", "load_ms=n:812.25", "thermal_state=n:2"},
     "",
     {}},
    {"key in both maps stands twice in extra",
     [] {
       xj_tel_record_str("dup", "x");
       xj_tel_record("dup", 2);
     },
     {},
     "",
     {"dup=n:2", "dup=s:x"}},
    {"known key as text is an ordinary text",
     [] {
       xj_tel_record_str("fps_ema", "fast");
       xj_tel_record("fps_ema", 1);
     },
     {"fps_ema=n:1"},
     "",
     {"fps_ema=s:fast"}},
    {"model_key and device_model texts have their own places",
     [] {
       xj_tel_record_str("model_key", "b1");
       xj_tel_record_str("device_model", "Pixel 8");
       xj_tel_record("model_key", 3);
       xj_tel_record("device_model", 4);
       xj_tel_record("load_ms", 5);
     },
     {"load_ms=n:5", "model_key=s:b1"},
     "Pixel 8",
     {"device_model=n:4", "model_key=n:3"}},
    {"empty texts under the placed keys",
     [] {
       xj_tel_record_str("device_model", "");
       xj_tel_record_str("model_key", "");
     },
     {"model_key=s:"},
     "",
     {}},
    {"numbers first, then texts, each in byte order of the keys",
     [] {
       xj_tel_record_str("a", "t");
       xj_tel_record_str("\xc3\xa9", "u");
       xj_tel_record_str("Z", "v");
       xj_tel_record("z", 1);
       xj_tel_record("\xc3\xa9", 3);
       xj_tel_record("B", 2);
       xj_tel_record("b", 4);
     },
     {},
     "",
     {"B=n:2", "b=n:4", "z=n:1", "\xc3\xa9=n:3", "Z=s:v", "a=s:t", "\xc3\xa9=s:u"}},
    {"last written wins and empty texts are stored",
     [] {
       xj_tel_record("x", 1);
       xj_tel_record("x", 2.5);
       xj_tel_record_str("s", "old");
       xj_tel_record_str("s", "");
       xj_tel_record("fps_ema", 10);
       xj_tel_record("fps_ema", 12);
     },
     {"fps_ema=n:12"},
     "",
     {"x=n:2.5", "s=s:"}},
    {"null and empty keys and null values are ignored",
     [] {
       xj_tel_record_str("k", "keep");
       xj_tel_record(nullptr, 1);
       xj_tel_record("", 1);
       xj_tel_record_str(nullptr, "v");
       xj_tel_record_str("", "v");
       xj_tel_record_str("k", nullptr);
       xj_tel_record_str("model_key", nullptr);
     },
     {},
     "",
     {"k=s:keep"}},
};

TEST(TelemetrySnapshot, MembersAndOrder) {
  for (const OrderCase& c : kOrderCases) {
    SCOPED_TRACE(c.name);
    inFreshProcess([&c] {
      c.record();
      Taken t = take();
      EXPECT_EQ(t.top, c.top);
      EXPECT_EQ(t.deviceModel, c.deviceModel);
      EXPECT_EQ(t.extra, c.extra);
    });
  }
}

TEST(TelemetrySnapshot, EmptyStoreIsByteExactApartFromTheMachine) {
  inFreshProcess([] {
    const std::string s = xj::tel::snapshot_json();
    EXPECT_EQ(s.find('\n'), std::string::npos) << "one line";
    EXPECT_EQ(s.compare(0, 6, "{\"ts\":"), 0) << s;
    EXPECT_NE(s.find(",\"os\":\"linux\",\"os_version\":\""), std::string::npos) << s;
    EXPECT_NE(s.find("\",\"device_model\":\"\",\"arch\":\""), std::string::npos) << s;
    const std::string tail = ",\"extra\":{}}";
    ASSERT_GE(s.size(), tail.size());
    EXPECT_EQ(s.substr(s.size() - tail.size()), tail) << s;
    const std::string pending = xj_tel_pending_json();
    EXPECT_EQ(pending.compare(0, 23, "{\"queued\":0,\"snapshot\":"), 0) << pending;
    EXPECT_EQ(pending.back(), '}');
  });
}

struct NumberCase {
  double value;
  const char* text;
};

TEST(TelemetrySnapshot, NumberRule) {
  const NumberCase kNumbers[] = {
      {30.0, "30"},
      {29.97, "29.97"},
      {0.0, "0"},
      {-0.0, "0"},
      {-7.0, "-7"},
      {-2.5, "-2.5"},
      {0.1, "0.1"},
      {1e-7, "1e-07"},
      {123456789.5, "1.23457e+08"},
      {1e15, "1000000000000000"},
      {4503599627370497.0, "4503599627370497"},  // 2^52 + 1: whole, beyond six digits
      {1e18, "1000000000000000000"},
      {-9223372036854775808.0, "-9223372036854775808"},  // -2^63 converts exactly
      {9223372036854775808.0, "9.22337e+18"},            // 2^63 is out of int64 range
      {1e300, "1e+300"},
      {-1e-300, "-1e-300"},
      {2.0 / 3.0, "0.666667"},
  };
  inFreshProcess([&kNumbers] {
    std::vector<std::string> expected;
    for (size_t i = 0; i < std::size(kNumbers); ++i) {
      char key[8];
      std::snprintf(key, sizeof key, "n%02zu", i);
      xj_tel_record(key, kNumbers[i].value);
      expected.push_back(std::string(key) + "=n:" + kNumbers[i].text);
    }
    EXPECT_EQ(take().extra, expected);
    // Known keys follow the same rule at the top level.
    xj_tel_record("fps_ema", 29.97);
    xj_tel_record("frames_total", 1e15);
    EXPECT_EQ(take().top, (std::vector<std::string>{"fps_ema=n:29.97", "frames_total=n:1000000000000000"}));
  });
}

TEST(TelemetrySnapshot, NonFiniteValuesAreWrittenAsText) {
  // Hosts record finite values; a non-finite one is written as printf writes it.
  inFreshProcess([] {
    xj_tel_record("inf", INFINITY);
    const std::string s = xj::tel::snapshot_json();
    EXPECT_NE(s.find("\"extra\":{\"inf\":inf}"), std::string::npos) << s;
  });
}

struct EscapeCase {
  std::string raw;
  std::string written;
};

TEST(TelemetrySnapshot, EscapeRuleOnValuesAndKeys) {
  const std::vector<EscapeCase> kEscapes = {
      {"plain", "plain"},
      {"a\"b", "a\\\"b"},
      {"back\\slash", "back\\\\slash"},
      {"line\nbreak", "line\\nbreak"},
      {"tab\there", "tab\\there"},
      {"cr\r", "cr\\u000d"},
      {"\x01\x08\x0c\x1f", "\\u0001\\u0008\\u000c\\u001f"},
      {"slash/", "slash/"},
      {"del\x7f", "del\x7f"},
      {"\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80", "\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80"},
      {"\"\\\n\t\x1b", "\\\"\\\\\\n\\t\\u001b"},
  };
  inFreshProcess([&kEscapes] {
    for (size_t i = 0; i < kEscapes.size(); ++i) {
      // The same text as a key (its own number keeps the two apart) and as a value.
      xj_tel_record_str(("v" + std::to_string(i)).c_str(), kEscapes[i].raw.c_str());
      xj_tel_record((std::to_string(i) + kEscapes[i].raw).c_str(), 1);
    }
    const std::string s = xj::tel::snapshot_json();
    std::vector<std::string> extra;
    for (size_t i = 0; i < kEscapes.size(); ++i) {
      EXPECT_NE(s.find("\"v" + std::to_string(i) + "\":\"" + kEscapes[i].written + "\""), std::string::npos)
          << "value " << i << " in " << s;
      EXPECT_NE(s.find("\"" + std::to_string(i) + kEscapes[i].written + "\":1"), std::string::npos)
          << "key " << i << " in " << s;
    }
    // Read back strictly, every text decodes to what was recorded.
    tjson::Value v = tjson::parse(s);
    const tjson::Value* ex = v.find("extra");
    ASSERT_NE(ex, nullptr);
    for (size_t i = 0; i < kEscapes.size(); ++i) {
      const tjson::Value* val = ex->find("v" + std::to_string(i));
      ASSERT_NE(val, nullptr) << i;
      EXPECT_EQ(val->text, kEscapes[i].raw) << i;
      EXPECT_NE(ex->find(std::to_string(i) + kEscapes[i].raw), nullptr) << i;
    }
  });
}

TEST(TelemetrySnapshot, EveryByteRoundTripsThroughModelKeyAndDeviceModel) {
  inFreshProcess([] {
    std::string all;
    for (int c = 1; c < 0x80; ++c) all += static_cast<char>(c);
    all += "\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80";
    xj_tel_record_str("model_key", all.c_str());
    xj_tel_record_str("device_model", ("dm" + all).c_str());
    xj_tel_record_str(all.c_str(), all.c_str());
    long long queued = -1;
    tjson::Value snap = teltest::pendingSnapshot(&queued);
    ASSERT_TRUE(snap.isObject());
    EXPECT_EQ(snap.find("model_key")->text, all);
    EXPECT_EQ(snap.find("device_model")->text, "dm" + all);
    const tjson::Value* ex = snap.find("extra");
    ASSERT_NE(ex, nullptr);
    ASSERT_EQ(ex->members.size(), 1u);
    EXPECT_EQ(ex->members[0].first, all);
    EXPECT_EQ(ex->members[0].second.text, all);
  });
}

TEST(TelemetrySnapshot, BytesAbove0x7FAreCopiedUnchanged) {
  // The store does not validate UTF-8: what the host gives is what it gets back.
  inFreshProcess([] {
    xj_tel_record_str("raw", "\xff\x80\xc3");
    const std::string s = xj::tel::snapshot_json();
    EXPECT_NE(s.find("\"raw\":\"\xff\x80\xc3\"}}"), std::string::npos) << s;
  });
}

TEST(TelemetrySnapshot, PendingNeverQueuesAndItsTextIsPerThread) {
  inFreshProcess([] {
    long long queued = -1;
    for (int i = 0; i < 3; ++i) {
      teltest::pendingSnapshot(&queued);
      EXPECT_EQ(queued, 0);
      xj::tel::snapshot_json();
    }
    EXPECT_EQ(xj_tel_flush(), -2);
    EXPECT_EQ(xj_tel_flush(), -2);
    for (int i = 0; i < 3; ++i) {
      teltest::pendingSnapshot(&queued);
      EXPECT_EQ(queued, 2);
    }

    xj_tel_record("here", 1);
    const char* mine = xj_tel_pending_json();
    const std::string copy = mine;
    std::string theirs;
    std::thread([&theirs] {
      xj_tel_record("there", 2);
      theirs = xj_tel_pending_json();
    }).join();
    EXPECT_EQ(std::string(mine), copy) << "another thread's call leaves this thread's text alone";
    EXPECT_NE(theirs.find("\"there\":2"), std::string::npos);
    EXPECT_EQ(copy.find("there"), std::string::npos);
  });
}

}  // namespace
