#include "json_text.h"

#include <cstdio>
#include <glib.h>

namespace gpctools {

std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const char* at = text.data();
  const char* const stop = text.data() + text.size();
  while (at < stop) {
    const gchar* end = nullptr;
    // GLib stops at a NUL byte too; a NUL is valid UTF-8 and is kept (escaped later as \u0000).
    const bool whole = g_utf8_validate(at, stop - at, &end);
    out.append(at, end);
    if (whole) break;
    if (*end == '\0') {
      out += '\0';
    } else {
      out += "\xEF\xBF\xBD";
    }
    at = end + 1;
  }
  return out;
}

std::string EscapeText(std::string_view text, bool (*spell)(unsigned code, std::string* out)) {
  const std::string valid = ValidUtf8(text);
  std::string out;
  out.reserve(valid.size() + 8);
  for (size_t at = 0; at < valid.size(); ++at) {
    const unsigned char c = static_cast<unsigned char>(valid[at]);
    const unsigned char next = at + 1 < valid.size() ? static_cast<unsigned char>(valid[at + 1]) : 0;
    const bool c1 = c == 0xC2 && next >= 0x80 && next < 0xA0;  // U+0080 to U+009F
    if (c == '\n' || c == '\r' || c == '\t') {
      out += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
    } else if (!(c1 ? spell(next, &out) : c < 0x80 && spell(c, &out))) {
      out += static_cast<char>(c);
      continue;
    }
    at += c1;
  }
  return out;
}

namespace {

bool JsonSpelling(unsigned code, std::string* out) {
  if (code == '"' || code == '\\') {
    *out += '\\';
    *out += static_cast<char>(code);
    return true;
  }
  if (code >= 0x20 && code < 0x7F) return false;
  char escaped[8];
  std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
  *out += escaped;
  return true;
}

}  // namespace

std::string JsonEscape(std::string_view text) { return EscapeText(text, JsonSpelling); }

}  // namespace gpctools
