#include "platform/debug_string.h"

#include <cstring>
#include <mutex>

namespace platform {

namespace {
std::mutex g_sink_mutex;
std::function<void(const std::string&)>& Sink() {
  static std::function<void(const std::string&)> sink;
  return sink;
}
}  // namespace

void DebugStr(const unsigned char* pascal_string) {
  if (pascal_string == nullptr) return;
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  if (!Sink()) return;
  Sink()(std::string(reinterpret_cast<const char*>(pascal_string + 1), pascal_string[0]));
}

void SetDebugStrSink(std::function<void(const std::string&)> sink) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  Sink() = std::move(sink);
}

void MakePascalString(const char* text, unsigned char out[256]) {
  size_t length = text == nullptr ? 0 : std::strlen(text);
  if (length > 255) length = 255;
  out[0] = static_cast<unsigned char>(length);
  if (length > 0) std::memcpy(out + 1, text, length);
}

int16_t CurResFile() { return 0; }

}  // namespace platform
