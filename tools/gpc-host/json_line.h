// One event of the host, printed as one JSON object on one line of standard output.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

class JsonLine {
 public:
  explicit JsonLine(const char* event);
  JsonLine& Add(const char* key, const std::string& value);
  JsonLine& Add(const char* key, const char* value);  // null prints as JSON null
  JsonLine& Add(const char* key, int64_t value);
  JsonLine& Add(const char* key, int value) { return Add(key, static_cast<int64_t>(value)); }
  JsonLine& AddBool(const char* key, bool value);
  // Writes the line and flushes, so that a reader sees each event as it happens.
  void Emit();
  // Where Emit writes: standard output unless set (native messaging keeps stdout for its frames).
  static void SetOutput(FILE* out);

  // Escapes `text` as the inside of a JSON string; bytes that are not UTF-8 become U+FFFD.
  static std::string Escape(const std::string& text);

 private:
  void Key(const char* key);
  std::string m_text;
};
