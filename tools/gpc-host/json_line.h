// JSON written by the host: one object as text, member by member, and one event of the host printed
// as one such object on one line of standard output. Text values that are not well-formed UTF-8 have
// their stray bytes replaced by U+FFFD.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

class JsonObjectText {
 public:
  JsonObjectText& Add(const char* key, const std::string& value);
  JsonObjectText& Add(const char* key, const char* value);  // null gives JSON null
  JsonObjectText& Add(const char* key, int64_t value);
  JsonObjectText& AddBool(const char* key, bool value);
  std::string Finish() const { return m_text.empty() ? "{}" : m_text + "}"; }

 private:
  void Key(const char* key);
  std::string m_text;
};

class JsonLine {
 public:
  explicit JsonLine(const char* event) { m_object.Add("event", event); }
  template <typename Value>
  JsonLine& Add(const char* key, const Value& value) {
    m_object.Add(key, value);
    return *this;
  }
  JsonLine& Add(const char* key, int value) { return Add(key, static_cast<int64_t>(value)); }
  JsonLine& AddBool(const char* key, bool value) {
    m_object.AddBool(key, value);
    return *this;
  }
  // Writes the line and flushes, so that a reader sees each event as it happens.
  void Emit();
  // Where Emit writes: standard output unless set (native messaging keeps stdout for its frames).
  static void SetOutput(FILE* out);

 private:
  JsonObjectText m_object;
};
