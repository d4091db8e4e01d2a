#include "json_value.h"

#include <cctype>
#include <cstring>
#include <glib.h>


namespace {

constexpr int kMaxDepth = 64;
// A tree costs many times the bytes of its text: a message of millions of tiny values is refused
// before it takes gigabytes (the largest real message, 1024 parameters, holds about 3,000).
constexpr size_t kMaxValues = 65536;

class Parser {
 public:
  explicit Parser(const std::string& text) : m_text(text) {}

  bool ParseDocument(JsonValue* out, std::string* error) {
    SkipSpace();
    if (!ParseValue(out, 0)) {
      *error = m_error + " at byte " + std::to_string(m_pos);
      return false;
    }
    SkipSpace();
    if (m_pos != m_text.size()) {
      *error = "text after the value at byte " + std::to_string(m_pos);
      return false;
    }
    return true;
  }

 private:
  bool Fail(const char* why) {
    if (m_error.empty()) m_error = why;
    return false;
  }
  bool AtEnd() const { return m_pos >= m_text.size(); }
  char Peek() const { return AtEnd() ? '\0' : m_text[m_pos]; }
  void SkipSpace() {
    while (!AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r')) ++m_pos;
  }
  bool Literal(const char* word) {
    size_t length = std::strlen(word);
    if (m_text.compare(m_pos, length, word) != 0) return Fail("unexpected character");
    m_pos += length;
    return true;
  }

  bool ParseValue(JsonValue* out, int depth) {
    if (depth > kMaxDepth) return Fail("nested too deeply");
    if (++m_values > kMaxValues) return Fail("more than 65536 values");
    switch (Peek()) {
      case '{': return ParseObject(out, depth);
      case '[': return ParseArray(out, depth);
      case '"': out->kind = JsonValue::Kind::kString; return ParseString(&out->text);
      case 't': out->kind = JsonValue::Kind::kBool; out->boolean = true; return Literal("true");
      case 'f': out->kind = JsonValue::Kind::kBool; return Literal("false");
      case 'n': out->kind = JsonValue::Kind::kNull; return Literal("null");
      default: return ParseNumber(out);
    }
  }

  bool ParseObject(JsonValue* out, int depth) {
    out->kind = JsonValue::Kind::kObject;
    ++m_pos;
    SkipSpace();
    if (Peek() == '}') return ++m_pos, true;
    for (;;) {
      SkipSpace();
      if (Peek() != '"') return Fail("expected a member name");
      std::string key;
      if (!ParseString(&key)) return false;
      SkipSpace();
      if (Peek() != ':') return Fail("expected ':'");
      ++m_pos;
      SkipSpace();
      out->members.emplace_back(std::move(key), JsonValue());
      if (!ParseValue(&out->members.back().second, depth + 1)) return false;
      SkipSpace();
      if (Peek() == ',') {
        ++m_pos;
        continue;
      }
      if (Peek() == '}') return ++m_pos, true;
      return Fail("expected ',' or '}'");
    }
  }

  bool ParseArray(JsonValue* out, int depth) {
    out->kind = JsonValue::Kind::kArray;
    ++m_pos;
    SkipSpace();
    if (Peek() == ']') return ++m_pos, true;
    for (;;) {
      SkipSpace();
      out->items.emplace_back();
      if (!ParseValue(&out->items.back(), depth + 1)) return false;
      SkipSpace();
      if (Peek() == ',') {
        ++m_pos;
        continue;
      }
      if (Peek() == ']') return ++m_pos, true;
      return Fail("expected ',' or ']'");
    }
  }

  bool ParseNumber(JsonValue* out) {
    size_t start = m_pos;
    if (Peek() == '-') ++m_pos;
    if (!std::isdigit(static_cast<unsigned char>(Peek()))) return Fail("unexpected character");
    if (Peek() == '0') {
      ++m_pos;
    } else {
      while (std::isdigit(static_cast<unsigned char>(Peek()))) ++m_pos;
    }
    if (Peek() == '.') {
      ++m_pos;
      if (!std::isdigit(static_cast<unsigned char>(Peek()))) return Fail("bad number");
      while (std::isdigit(static_cast<unsigned char>(Peek()))) ++m_pos;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++m_pos;
      if (Peek() == '+' || Peek() == '-') ++m_pos;
      if (!std::isdigit(static_cast<unsigned char>(Peek()))) return Fail("bad number");
      while (std::isdigit(static_cast<unsigned char>(Peek()))) ++m_pos;
    }
    out->kind = JsonValue::Kind::kNumber;
    // Browsers may start their hosts under a locale whose decimal point is a comma.
    out->number = g_ascii_strtod(m_text.substr(start, m_pos - start).c_str(), nullptr);
    return true;
  }

  bool Hex4(unsigned* code) {
    if (m_pos + 4 > m_text.size()) return Fail("short \\u escape");
    *code = 0;
    for (int i = 0; i < 4; ++i) {
      char c = m_text[m_pos++];
      *code <<= 4;
      if (c >= '0' && c <= '9') *code |= static_cast<unsigned>(c - '0');
      else if (c >= 'a' && c <= 'f') *code |= static_cast<unsigned>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') *code |= static_cast<unsigned>(c - 'A' + 10);
      else return Fail("bad \\u escape");
    }
    return true;
  }

  static void AppendUtf8(unsigned code, std::string* out) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  bool Escape(std::string* out) {
    char c = m_text[m_pos++];
    switch (c) {
      case '"': *out += '"'; return true;
      case '\\': *out += '\\'; return true;
      case '/': *out += '/'; return true;
      case 'b': *out += '\b'; return true;
      case 'f': *out += '\f'; return true;
      case 'n': *out += '\n'; return true;
      case 'r': *out += '\r'; return true;
      case 't': *out += '\t'; return true;
      case 'u': break;
      default: return Fail("bad escape");
    }
    unsigned code = 0;
    if (!Hex4(&code)) return false;
    if (code >= 0xDC00 && code <= 0xDFFF) return Fail("lone surrogate");
    if (code >= 0xD800 && code <= 0xDBFF) {
      unsigned low = 0;
      if (m_text.compare(m_pos, 2, "\\u") != 0) return Fail("lone surrogate");
      m_pos += 2;
      if (!Hex4(&low)) return false;
      if (low < 0xDC00 || low > 0xDFFF) return Fail("lone surrogate");
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    AppendUtf8(code, out);
    return true;
  }

  // Copies one UTF-8 sequence, checking its form (GLib refuses overlong forms, surrogates and
  // code points past U+10FFFF); returns false on invalid UTF-8.
  bool Utf8(std::string* out) {
    const char* at = m_text.data() + m_pos;
    const gunichar code = g_utf8_get_char_validated(at, static_cast<gssize>(m_text.size() - m_pos));
    if (code == static_cast<gunichar>(-1) || code == static_cast<gunichar>(-2)) return Fail("invalid UTF-8");
    const size_t length = static_cast<size_t>(g_utf8_next_char(at) - at);
    out->append(m_text, m_pos, length);
    m_pos += length;
    return true;
  }

  bool ParseString(std::string* out) {
    ++m_pos;
    for (;;) {
      if (AtEnd()) return Fail("unterminated string");
      unsigned char c = static_cast<unsigned char>(m_text[m_pos]);
      if (c == '"') return ++m_pos, true;
      if (c < 0x20) return Fail("control character in a string");
      if (c == '\\') {
        ++m_pos;
        if (AtEnd()) return Fail("unterminated string");
        if (!Escape(out)) return false;
      } else if (!Utf8(out)) {
        return false;
      }
    }
  }

  const std::string& m_text;
  size_t m_pos = 0;
  size_t m_values = 0;
  std::string m_error;
};

}  // namespace

const JsonValue* JsonValue::Find(const std::string& key) const {
  for (const auto& member : members)
    if (member.first == key) return &member.second;
  return nullptr;
}

bool ParseJson(const std::string& text, JsonValue* out, std::string* error) {
  *out = JsonValue();
  return Parser(text).ParseDocument(out, error);
}
