#include "trace_capture.h"

#include "gpcnotification.h"

namespace {
std::mutex g_mutex;
std::vector<CapturedTrace>& Traces() {
  static std::vector<CapturedTrace> traces;
  return traces;
}
}  // namespace

void StartTraceCapture() {
  static const bool started = [] {
    gpc::GPCNotificationCenter::defaultCenter().addObserver(
        "TRACENOTIFICATIONNotification", [](const gpc::GPCNotification& note) {
          if (!note.userInfo) return;
          auto level = note.userInfo->GetNumber("Levelkey");
          auto text = note.userInfo->GetString("ContentKey");
          if (!level || !text) return;
          std::lock_guard<std::mutex> lock(g_mutex);
          Traces().push_back({static_cast<int>(*level), *text});
        });
    return true;
  }();
  (void)started;
}

std::vector<CapturedTrace> CapturedTracesSnapshot() {
  StartTraceCapture();
  std::lock_guard<std::mutex> lock(g_mutex);
  return Traces();
}

void ClearCapturedTraces() {
  StartTraceCapture();
  std::lock_guard<std::mutex> lock(g_mutex);
  Traces().clear();
}

bool TraceContains(int level, const std::string& fragment) {
  for (const CapturedTrace& t : CapturedTracesSnapshot()) {
    if (t.level == level && t.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}
