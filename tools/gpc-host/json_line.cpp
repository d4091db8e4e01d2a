#include "json_line.h"

#include <cstdio>

#include "json_text.h"

namespace {
FILE* g_output = nullptr;
}  // namespace

void JsonLine::SetOutput(FILE* out) { g_output = out; }

JsonLine::JsonLine(const char* event) { m_text = "{\"event\":\"" + Escape(event) + "\""; }

void JsonLine::Key(const char* key) { m_text += ",\"" + Escape(key) + "\":"; }

JsonLine& JsonLine::Add(const char* key, const std::string& value) {
  Key(key);
  m_text += "\"" + Escape(value) + "\"";
  return *this;
}

JsonLine& JsonLine::Add(const char* key, const char* value) {
  if (value == nullptr) {
    Key(key);
    m_text += "null";
    return *this;
  }
  return Add(key, std::string(value));
}

JsonLine& JsonLine::Add(const char* key, int64_t value) {
  Key(key);
  m_text += std::to_string(value);
  return *this;
}

JsonLine& JsonLine::AddBool(const char* key, bool value) {
  Key(key);
  m_text += value ? "true" : "false";
  return *this;
}

void JsonLine::Emit() {
  m_text += "}\n";
  FILE* out = g_output != nullptr ? g_output : stdout;
  std::fwrite(m_text.data(), 1, m_text.size(), out);
  std::fflush(out);
}

std::string JsonLine::Escape(const std::string& text) { return gpctools::JsonEscape(text); }
