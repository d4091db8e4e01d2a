#include "tvtprinter.h"

#include <cstdio>
#include <ctime>

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
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c == '\n') {
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

// Length of the well-formed UTF-8 sequence at `at`, or 0.
size_t Utf8SequenceLength(const std::string& text, size_t at) {
  const unsigned char c = static_cast<unsigned char>(text[at]);
  size_t extra;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    extra = 1;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (text.size() - at <= extra) return 0;
  for (size_t k = 1; k <= extra; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[at + k]);
    if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) return 0;
  }
  return extra + 1;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t length = Utf8SequenceLength(text, i);
      if (length == 0) {
        out += "\\uFFFD";
        ++i;
      } else {
        out.append(text, i, length);
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          AppendHex(&out, "\\u", c, 4);
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  return out + "\"";
}

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
