// Trace routing: every message is formatted, then posted to the notification hub as a trace entry,
// where the trace catcher keeps it and writes it to the binary trace file. Extensions in the same
// process reach the same hub through the exported C functions at the end.
#include "common/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/boundary.h"
#include "gpc/gpc_trace.h"
#include "common/gpcnotification.h"
#include "common/gpctracecatcher.h"
#include "common/tlvtrace/tlvtraceu.h"

namespace {

constexpr size_t kMessageBufferSize = 4096;
constexpr char kPluginModule[] = "GPCPlugin";

// Posts one entry; texts that are not UTF-8 are dropped, as no string can be made of them, and so
// is an entry that cannot be made or delivered for want of memory: logging never throws, so that
// destructors and catch handlers may log.
bool PostEntry(const char* module, int level, const char* text, size_t length) noexcept {
  if (!gpc::IsValidUtf8(std::string_view(text, length))) return false;
  try {
    std::map<std::string, gpc::GPCUserInfo::Value> values;
    values.emplace(GPC_TRACE_CONTENT_KEY, std::string(text, length));
    values.emplace(GPC_TRACE_MODULE_KEY, std::string(module));
    values.emplace(GPC_TRACE_LEVEL_KEY, static_cast<double>(level));
    gpc::GPCNotificationCenter::defaultCenter().postNotification(
        GPC_TRACE_NOTIFICATION, nullptr, gpc::GPCUserInfo::CreateImmutable(std::move(values)));
    return true;
  } catch (...) {
    return false;
  }
}

void PostFormatted(int level, const char* format, va_list args) {
  if (format == nullptr) return;
  char buffer[kMessageBufferSize] = {};
  // Longer messages are cut to 4095 bytes without notice.
  vsnprintf(buffer, sizeof buffer, format, args);
  PostEntry(kPluginModule, level, buffer, strlen(buffer));
}

}  // namespace

#define GPC_DEFINE_TRACE(name, level)    \
  void name(const char* format, ...) {   \
    va_list args;                        \
    va_start(args, format);              \
    PostFormatted(level, format, args);  \
    va_end(args);                        \
  }
GPC_DEFINE_TRACE(MacDebugTrace, GPC_TRACE_DEBUG)
GPC_DEFINE_TRACE(MacInfoTrace, GPC_TRACE_INFO)
GPC_DEFINE_TRACE(MacWarnTrace, GPC_TRACE_WARNING)
GPC_DEFINE_TRACE(MacErrorTrace, GPC_TRACE_ERROR)
#undef GPC_DEFINE_TRACE

extern "C" GPC_TRACE_EXPORT int GpcTracePost(const char* module, int level, const char* text) {
  if (module == nullptr || text == nullptr) return 0;
  return PostEntry(module, level, text, strlen(text)) ? 1 : 0;
}

extern "C" GPC_TRACE_EXPORT int GpcTraceQueryWarnings(int reset, char* buffer, size_t size) try {
  nlStrCpy(buffer, size, "");
  std::shared_ptr<gpc::GPCUserInfo> query = gpc::GPCUserInfo::CreateMutable();
  query->SetBool(GPC_RESET_TRACES_KEY, reset != 0);
  gpc::GPCNotificationCenter::defaultCenter().postNotification(GPC_QUERY_WARNINGS_NOTIFICATION, nullptr, query);
  const std::optional<std::string> answer = query->GetString(GPC_QUERY_TRACES_KEY);
  if (!answer) return -1;
  nlStrCpy(buffer, size, answer->c_str());
  return static_cast<int>(answer->size());
}
GPC_BOUNDARY_CATCH(-1)
