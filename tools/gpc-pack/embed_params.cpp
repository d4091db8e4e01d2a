#include "embed_params.h"

#include <strings.h>

#include <cstdio>

namespace {

constexpr char kMimeType[] = "application/x-talvo-gpc";

std::string JsonEscape(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

void AppendUtf8(unsigned long code, std::string* out) {
  if (code < 0x80) {
    *out += static_cast<char>(code);
  } else if (code < 0x800) {
    *out += static_cast<char>(0xc0 | (code >> 6));
    *out += static_cast<char>(0x80 | (code & 0x3f));
  } else if (code < 0x10000) {
    *out += static_cast<char>(0xe0 | (code >> 12));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
    *out += static_cast<char>(0x80 | (code & 0x3f));
  } else {
    *out += static_cast<char>(0xf0 | (code >> 18));
    *out += static_cast<char>(0x80 | ((code >> 12) & 0x3f));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
    *out += static_cast<char>(0x80 | (code & 0x3f));
  }
}

// A reader of one flat JSON object whose values are strings.
class JsonObjectReader {
 public:
  explicit JsonObjectReader(const std::string& text) : m_text(text) {}

  bool Read(EmbedParams* params, std::string* error) {
    if (!Expect('{')) return Fail("a JSON object must start with \"{\"", error);
    SkipBlanks();
    if (Expect('}')) return Finish(error);
    for (;;) {
      std::string name, value;
      if (!ReadString(&name)) return Fail("expected a parameter name in double quotes", error);
      if (!Expect(':')) return Fail("expected \":\" after \"" + name + "\"", error);
      if (!ReadString(&value)) return Fail("the value of \"" + name + "\" must be a string", error);
      params->emplace_back(name, value);
      if (Expect(',')) continue;
      if (Expect('}')) return Finish(error);
      return Fail("expected \",\" or \"}\"", error);
    }
  }

 private:
  bool Finish(std::string* error) {
    SkipBlanks();
    return m_at == m_text.size() || Fail("text after the JSON object", error);
  }
  bool Fail(const std::string& what, std::string* error) {
    *error = what + " (at byte " + std::to_string(m_at) + ")";
    return false;
  }
  void SkipBlanks() {
    while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\n' || m_text[m_at] == '\r')) {
      ++m_at;
    }
  }
  char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
  bool Expect(char c) {
    SkipBlanks();
    if (Peek() != c) return false;
    ++m_at;
    return true;
  }
  bool ReadHex4(unsigned long* code) {
    if (m_at + 4 > m_text.size()) return false;
    *code = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = m_text[m_at++];
      const int digit = c >= '0' && c <= '9' ? c - '0' : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? (c | 0x20) - 'a' + 10 : -1;
      if (digit < 0) return false;
      *code = *code * 16 + static_cast<unsigned long>(digit);
    }
    return true;
  }
  bool ReadEscape(std::string* out) {
    const char c = m_text[m_at++];
    static const char kPlain[] = "\"\\/bfnrt";
    static const char kMeaning[] = "\"\\/\b\f\n\r\t";
    for (int i = 0; kPlain[i] != '\0'; ++i) {
      if (c == kPlain[i]) {
        *out += kMeaning[i];
        return true;
      }
    }
    unsigned long code = 0, low = 0;
    if (c != 'u' || !ReadHex4(&code)) return false;
    if (code >= 0xd800 && code < 0xdc00) {
      // A high surrogate must be followed by its low half.
      if (m_text.compare(m_at, 2, "\\u") != 0) return false;
      m_at += 2;
      if (!ReadHex4(&low) || low < 0xdc00 || low >= 0xe000) return false;
      code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
    } else if (code >= 0xdc00 && code < 0xe000) {
      return false;
    }
    AppendUtf8(code, out);
    return true;
  }
  bool ReadString(std::string* out) {
    if (!Expect('"')) return false;
    while (m_at < m_text.size()) {
      const unsigned char c = static_cast<unsigned char>(m_text[m_at++]);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c != '\\') {
        *out += static_cast<char>(c);
      } else if (m_at >= m_text.size() || !ReadEscape(out)) {
        return false;
      }
    }
    return false;
  }

  const std::string& m_text;
  size_t m_at = 0;
};

}  // namespace

std::string HtmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string EmbedHtml(const EmbedParams& params) {
  std::string html = std::string("<embed type=\"") + kMimeType + "\"";
  for (const auto& [name, value] : params) html += "\n  " + name + "=\"" + HtmlEscape(value) + "\"";
  return html + ">\n";
}

std::string EmbedJson(const EmbedParams& params) {
  std::string json = "{";
  for (const auto& [name, value] : params) {
    if (json.size() > 1) json += ",";
    json += "\"" + JsonEscape(name) + "\":\"" + JsonEscape(value) + "\"";
  }
  return json + "}\n";
}

bool ParseEmbedJson(const std::string& text, EmbedParams* params, std::string* error) {
  return JsonObjectReader(text).Read(params, error);
}

std::string ParamValue(const EmbedParams& params, const char* name) {
  for (const auto& [given, value] : params) {
    if (strcasecmp(given.c_str(), name) == 0) return value;
  }
  return std::string();
}
