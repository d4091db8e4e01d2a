#include "json_line.h"

#include <cstdio>

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

std::string JsonLine::Escape(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out;
}
