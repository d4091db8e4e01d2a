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

// Control characters escaped, as "\x1B" or "\u009B": a page's text reaches the terminal.
bool LineSpelling(unsigned code, std::string* out) {
  if (code >= 0x80) {
    AppendHex(out, "\\u", code, 4);
  } else if (code < 0x20 || code == 0x7F) {
    AppendHex(out, "\\x", code, 2);
  } else {
    return false;
  }
  return true;
}

std::string EscapeForLine(const std::string& text) { return gpctools::EscapeText(text, LineSpelling); }

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
