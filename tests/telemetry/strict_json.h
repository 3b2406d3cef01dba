// A small strict JSON reader (RFC 8259) for checking what the telemetry store
// writes. Deliberately separate from every reader inside the library: it keeps
// object members in document order, duplicates included, keeps each number's
// text as written, and refuses anything the grammar does not allow (invalid
// UTF-8 included).
#pragma once
#include <string>
#include <utility>
#include <vector>

namespace tjson {

struct Value {
  enum class Kind { Null, Bool, Number, String, Array, Object };
  Kind kind = Kind::Null;
  bool boolean = false;
  std::string text;  // Number: the literal as written; String: the decoded bytes (UTF-8)
  std::vector<Value> items;
  std::vector<std::pair<std::string, Value>> members;

  bool isObject() const { return kind == Kind::Object; }
  // The first member named key, or nullptr.
  const Value* find(const std::string& key) const;
  std::vector<std::string> keys() const;
};

// Parses one whole JSON text; throws std::runtime_error naming the byte offset
// of the first deviation.
Value parse(const std::string& text);

}  // namespace tjson
