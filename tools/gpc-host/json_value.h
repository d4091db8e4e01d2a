// A small JSON reader for the messages of the browser extension: objects, arrays, strings,
// numbers, true, false and null, as RFC 8259 writes them.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct JsonValue {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };
  Kind kind = Kind::kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // UTF-8
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;  // in order; a repeated key keeps all

  // The first member named `key`, or null when absent or when this is not an object.
  const JsonValue* Find(const std::string& key) const;
  bool IsString() const { return kind == Kind::kString; }
};

// Parses `text` as one JSON value (surrounding white space allowed). Returns false with a short
// reason in `error` on bad syntax, invalid UTF-8, nesting deeper than 64 levels or more than 65,536
// values in all.
bool ParseJson(const std::string& text, JsonValue* out, std::string* error);
