// The checking reader must itself be strict, or the telemetry tests that lean
// on it prove nothing.
#include <gtest/gtest.h>

#include "strict_json.h"

namespace {

struct Doc {
  const char* name;
  std::string text;
};

TEST(StrictJson, AcceptsWhatTheGrammarAllows) {
  const Doc kValid[] = {
      {"empty object", "{}"},
      {"empty array", " [ ] "},
      {"scalars", "[0,-0,1,-1,10,0.5,-0.5,1e5,1E+5,1e-07,2.5e-3,true,false,null]"},
      {"top-level scalar", "42"},
      {"escapes", R"(["\"\\\/\b\f\n\r\t\u0000\u001f\u00e9\uD83D\uDE00"])"},
      {"raw UTF-8", "[\"\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80\x7f\"]"},
      {"duplicate keys", R"({"a":1,"a":"x"})"},
      {"whitespace everywhere", "\r\n\t{ \"k\" :\n[ 1 , { } ] }\t"},
  };
  for (const Doc& d : kValid) EXPECT_NO_THROW(tjson::parse(d.text)) << d.name;
}

TEST(StrictJson, RefusesWhatTheGrammarDoesNot) {
  const Doc kInvalid[] = {
      {"empty text", ""},
      {"leading zero", "[01]"},
      {"plus sign", "[+1]"},
      {"bare point", "[1.]"},
      {"point first", "[.5]"},
      {"empty exponent", "[1e]"},
      {"nan", "[nan]"},
      {"inf", "[inf]"},
      {"negative nan", "[-nan]"},
      {"trailing comma in array", "[1,]"},
      {"trailing comma in object", "{\"a\":1,}"},
      {"missing colon", "{\"a\" 1}"},
      {"unquoted key", "{a:1}"},
      {"single quotes", "['a']"},
      {"raw newline in string", "[\"a\nb\"]"},
      {"raw tab in string", "[\"a\tb\"]"},
      {"raw 0x01 in string", "[\"\x01\"]"},
      {"unknown escape", R"(["\a"])"},
      {"short unicode escape", R"(["\u00e"])"},
      {"lone high surrogate", R"(["\uD83D"])"},
      {"lone low surrogate", R"(["\uDE00"])"},
      {"invalid UTF-8 byte", "[\"\xff\"]"},
      {"bare continuation byte", "[\"\x80\"]"},
      {"truncated UTF-8", "[\"\xc3\"]"},
      {"overlong UTF-8", "[\"\xc0\xaf\"]"},
      {"overlong three-byte", "[\"\xe0\x80\xaf\"]"},
      {"encoded surrogate", "[\"\xed\xa0\x80\"]"},
      {"beyond U+10FFFF", "[\"\xf4\x90\x80\x80\"]"},
      {"unterminated string", "[\"abc"},
      {"unterminated object", "{\"a\":1"},
      {"two values", "{} {}"},
      {"garbage after value", "{}x"},
      {"capitalised literal", "[True]"},
  };
  for (const Doc& d : kInvalid) EXPECT_THROW(tjson::parse(d.text), std::runtime_error) << d.name;
}

TEST(StrictJson, KeepsOrderDuplicatesAndNumberText) {
  tjson::Value v = tjson::parse(R"({"z":1e-07,"a":[30,"\u00e9\n"],"z":"again"})");
  ASSERT_TRUE(v.isObject());
  EXPECT_EQ(v.keys(), (std::vector<std::string>{"z", "a", "z"}));
  EXPECT_EQ(v.members[0].second.text, "1e-07");
  EXPECT_EQ(v.members[2].second.text, "again");
  const tjson::Value* a = v.find("a");
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->items.size(), 2u);
  EXPECT_EQ(a->items[0].text, "30");
  EXPECT_EQ(a->items[1].text, "\xc3\xa9\n");
  EXPECT_EQ(tjson::parse(R"(["\uD83D\uDE00"])").items[0].text, "\xf0\x9f\x98\x80");
}

}  // namespace
