#include "tvtprinter.h"

#include <cstdio>
#include <ctime>

#include "json_text.h"

namespace tlvtracer {

namespace {

std::string LocalTime(const TraceRecord& record) {
  const time_t seconds = static_cast<time_t>(record.seconds);
  struct tm local;
  char clock[32];
  if (localtime_r(&seconds, &local) == nullptr || strftime(clock, sizeof clock, "%Y-%m-%d %H:%M:%S", &local) == 0) {
    return "N/A";
  }
  char millis[8];
  snprintf(millis, sizeof millis, ".%03u", static_cast<unsigned>(record.milliseconds % 1000));
  return std::string(clock) + millis;
}

void AppendHex(std::string* out, const char* prefix, unsigned value, int digits) {
  char text[16];
  snprintf(text, sizeof text, "%s%0*X", prefix, digits, value);
  *out += text;
}

std::string EscapeForLine(const std::string& text) {
  // Bytes that are not UTF-8 become U+FFFD, and control characters are shown escaped: a page's
  // text reaches the terminal, which would act on them.
  const std::string valid = gpctools::ValidUtf8(text);
  std::string out;
  out.reserve(valid.size());
  for (size_t at = 0; at < valid.size(); ++at) {
    const unsigned char c = static_cast<unsigned char>(valid[at]);
    const unsigned char next = at + 1 < valid.size() ? static_cast<unsigned char>(valid[at + 1]) : 0;
    if (c == 0xC2 && next >= 0x80 && next < 0xA0) {  // U+0080 to U+009F
      AppendHex(&out, "\\u", next, 4);
      ++at;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      AppendHex(&out, "\\x", c, 2);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string JsonString(const std::string& text) { return "\"" + gpctools::JsonEscape(text) + "\""; }

}  // namespace

std::string FormatLine(const TraceRecord& record) {
  std::string level = LevelName(record.level);
  level.resize(level.size() < 5 ? 5 : level.size(), ' ');
  std::string line = LocalTime(record) + " " + level + " pid " + std::to_string(record.pid) + " thread ";
  AppendHex(&line, "0x", record.thread, 8);
  line += " " + EscapeForLine(record.module) + " ";
  line += record.function.empty() ? "-" : EscapeForLine(record.function);
  line += " " + EscapeForLine(record.text);
  return line;
}

std::string FormatJson(const TraceRecord& record) {
  std::string json = "{\"offset\":" + std::to_string(record.offset);
  json += ",\"time\":" + JsonString(LocalTime(record));
  json += ",\"seconds\":" + std::to_string(record.seconds);
  json += ",\"milliseconds\":" + std::to_string(record.milliseconds);
  json += ",\"level\":" + JsonString(LevelName(record.level));
  json += ",\"level_value\":" + std::to_string(record.level);
  json += ",\"pid\":" + std::to_string(record.pid);
  json += ",\"thread\":" + std::to_string(record.thread);
  json += ",\"module\":" + JsonString(record.module);
  json += ",\"function\":" + JsonString(record.function);
  json += ",\"text\":" + JsonString(record.text) + "}";
  return json;
}

}  // namespace tlvtracer
