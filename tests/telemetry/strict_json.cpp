#include "strict_json.h"

#include <cstdint>
#include <stdexcept>

namespace tjson {

const Value* Value::find(const std::string& key) const {
  for (const auto& m : members)
    if (m.first == key) return &m.second;
  return nullptr;
}

std::vector<std::string> Value::keys() const {
  std::vector<std::string> k;
  for (const auto& m : members) k.push_back(m.first);
  return k;
}

namespace {

constexpr int kMaxDepth = 64;

class Reader {
 public:
  explicit Reader(const std::string& s) : s_(s) {}

  Value document() {
    skipWs();
    Value v = value(0);
    skipWs();
    if (pos_ != s_.size()) fail("text after the value");
    return v;
  }

 private:
  [[noreturn]] void fail(const char* what) const {
    throw std::runtime_error(std::string("json: ") + what + " at byte " + std::to_string(pos_));
  }
  bool atEnd() const { return pos_ >= s_.size(); }
  unsigned char peek() const { return atEnd() ? 0 : static_cast<unsigned char>(s_[pos_]); }
  unsigned char next() {
    if (atEnd()) fail("unexpected end");
    return static_cast<unsigned char>(s_[pos_++]);
  }
  void expect(char c) {
    if (next() != static_cast<unsigned char>(c)) {
      --pos_;
      fail("unexpected byte");
    }
  }
  void skipWs() {
    while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++pos_;
  }
  void literal(const char* word) {
    for (const char* p = word; *p; ++p) expect(*p);
  }

  Value value(int depth) {
    if (depth > kMaxDepth) fail("nesting too deep");
    Value v;
    switch (peek()) {
      case '{': v = object(depth); break;
      case '[': v = array(depth); break;
      case '"':
        v.kind = Value::Kind::String;
        v.text = string();
        break;
      case 't': literal("true"); v.kind = Value::Kind::Bool; v.boolean = true; break;
      case 'f': literal("false"); v.kind = Value::Kind::Bool; break;
      case 'n': literal("null"); break;
      default:
        if (peek() == '-' || (peek() >= '0' && peek() <= '9')) {
          v.kind = Value::Kind::Number;
          v.text = number();
        } else {
          fail("no value");
        }
    }
    return v;
  }

  Value object(int depth) {
    Value v;
    v.kind = Value::Kind::Object;
    expect('{');
    skipWs();
    if (peek() == '}') {
      ++pos_;
      return v;
    }
    for (;;) {
      skipWs();
      if (peek() != '"') fail("member name is not a string");
      std::string key = string();
      skipWs();
      expect(':');
      skipWs();
      v.members.emplace_back(std::move(key), value(depth + 1));
      skipWs();
      unsigned char c = next();
      if (c == '}') return v;
      if (c != ',') fail("expected , or }");
    }
  }

  Value array(int depth) {
    Value v;
    v.kind = Value::Kind::Array;
    expect('[');
    skipWs();
    if (peek() == ']') {
      ++pos_;
      return v;
    }
    for (;;) {
      skipWs();
      v.items.push_back(value(depth + 1));
      skipWs();
      unsigned char c = next();
      if (c == ']') return v;
      if (c != ',') fail("expected , or ]");
    }
  }

  static bool digit(unsigned char c) { return c >= '0' && c <= '9'; }

  std::string number() {
    const size_t start = pos_;
    if (peek() == '-') ++pos_;
    if (peek() == '0') {
      ++pos_;
    } else if (digit(peek())) {
      while (digit(peek())) ++pos_;
    } else {
      fail("bad number");
    }
    if (peek() == '.') {
      ++pos_;
      if (!digit(peek())) fail("no digit after the point");
      while (digit(peek())) ++pos_;
    }
    if (peek() == 'e' || peek() == 'E') {
      ++pos_;
      if (peek() == '+' || peek() == '-') ++pos_;
      if (!digit(peek())) fail("no digit in the exponent");
      while (digit(peek())) ++pos_;
    }
    return s_.substr(start, pos_ - start);
  }

  unsigned hex4() {
    unsigned v = 0;
    for (int i = 0; i < 4; ++i) {
      unsigned char c = next();
      v <<= 4;
      if (c >= '0' && c <= '9') v |= c - '0';
      else if (c >= 'a' && c <= 'f') v |= c - 'a' + 10;
      else if (c >= 'A' && c <= 'F') v |= c - 'A' + 10;
      else fail("bad \\u escape");
    }
    return v;
  }

  static void putUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  // One raw multi-byte UTF-8 sequence starting with lead, validated and copied.
  void rawUtf8(std::string& out, unsigned char lead) {
    int more;
    uint32_t cp;
    if (lead >= 0xC2 && lead <= 0xDF) { more = 1; cp = lead & 0x1F; }
    else if (lead >= 0xE0 && lead <= 0xEF) { more = 2; cp = lead & 0x0F; }
    else if (lead >= 0xF0 && lead <= 0xF4) { more = 3; cp = lead & 0x07; }
    else fail("invalid UTF-8 lead byte");
    out += static_cast<char>(lead);
    for (int i = 0; i < more; ++i) {
      unsigned char c = next();
      if ((c & 0xC0) != 0x80) fail("invalid UTF-8 continuation");
      cp = (cp << 6) | (c & 0x3F);
      out += static_cast<char>(c);
    }
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[more]) fail("overlong UTF-8");
    if (cp >= 0xD800 && cp <= 0xDFFF) fail("UTF-8 encoded surrogate");
    if (cp > 0x10FFFF) fail("UTF-8 beyond U+10FFFF");
  }

  std::string string() {
    expect('"');
    std::string out;
    for (;;) {
      unsigned char c = next();
      if (c == '"') return out;
      if (c < 0x20) {
        --pos_;
        fail("raw control byte in a string");
      }
      if (c >= 0x80) {
        rawUtf8(out, c);
        continue;
      }
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      unsigned char e = next();
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          uint32_t cp = hex4();
          if (cp >= 0xDC00 && cp <= 0xDFFF) fail("lone low surrogate");
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (next() != '\\' || next() != 'u') fail("high surrogate without its pair");
            uint32_t lo = hex4();
            if (lo < 0xDC00 || lo > 0xDFFF) fail("high surrogate without its pair");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
          }
          putUtf8(out, cp);
          break;
        }
        default:
          fail("unknown escape");
      }
    }
  }

  const std::string& s_;
  size_t pos_ = 0;
};

}  // namespace

Value parse(const std::string& text) { return Reader(text).document(); }

}  // namespace tjson
