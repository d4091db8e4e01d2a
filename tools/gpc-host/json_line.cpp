#include "json_line.h"

#include <cstdio>

#include "json_text.h"

namespace {
FILE* g_output = nullptr;

std::string Quoted(const std::string& text) { return "\"" + gpctools::JsonEscape(text) + "\""; }
}  // namespace

void JsonObjectText::Key(const char* key) {
  m_text += m_text.empty() ? "{" : ",";
  m_text += Quoted(key) + ":";
}

JsonObjectText& JsonObjectText::Add(const char* key, const std::string& value) {
  Key(key);
  m_text += Quoted(value);
  return *this;
}

JsonObjectText& JsonObjectText::Add(const char* key, const char* value) {
  if (value != nullptr) return Add(key, std::string(value));
  Key(key);
  m_text += "null";
  return *this;
}

JsonObjectText& JsonObjectText::Add(const char* key, int64_t value) {
  Key(key);
  m_text += std::to_string(value);
  return *this;
}

JsonObjectText& JsonObjectText::AddBool(const char* key, bool value) {
  Key(key);
  m_text += value ? "true" : "false";
  return *this;
}

void JsonLine::SetOutput(FILE* out) { g_output = out; }

void JsonLine::Emit() {
  const std::string text = m_object.Finish() + "\n";
  FILE* out = g_output != nullptr ? g_output : stdout;
  std::fwrite(text.data(), 1, text.size(), out);
  std::fflush(out);
}
